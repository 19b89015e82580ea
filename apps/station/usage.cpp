// The station's usage text. The manual page (station.1) says the same at
// length; both list every option, every command with the level a network
// user needs, the files, the signals and the settings sections.
#include "usage.h"

namespace station {

const char* usage_options() {
  return R"(-v, --version: print the station's and the library's versions and exit
--passwd NAME LEVEL: add or change a network user (LEVEL viewer, operator or
    admin) in Station.UsersFile (station.users, mode 0600); the password is
    read from standard input, not echoed on a terminal
--issue-client-cert NAME: write TLSFOLDER/NAME.pem and NAME.key (0600), a
    client certificate signed by the station's CA that logs in as NAME
--issue-server-cert HOSTNAME...: replace TLSFOLDER/server.pem and server.key
    by a certificate for these host names or numeric addresses (localhost,
    127.0.0.1 and ::1 stay), signed by the station's CA: for clients that
    reach the station under its real name; used from the next start
--modbus-map: print the Modbus register map of [ModbusServer] as the
    configuration makes it, and exit (docs/devices.md))";
}

const char* usage_reference() {
  return R"(Commands, on the terminal (admin) and for network clients, with the level a
network user needs:
  status                              viewer    run time, cycles, records, log counts
  io, io get                          viewer    the digital I/O byte
  io set|clear|toggle BIT             operator  change a bit (number or name)
  trace, trace dump                   viewer    dump the sensor trace to a file
  trace start|stop                    operator  sample every cycle, or stop
  fit                                 operator  fit the recorded sensor curve
  hash METHOD FILE, crc FILE          operator  digests of a file in Station.DataDir
  config, config show                 viewer    every setting and its value
  config set Section.Key VALUE        admin     change a setting (checked)
  config save                         admin     write the settings into the file
  echo, set, unset, history           viewer    the interpreter's built-ins
  help [COMMAND], exit                none      the commands; end the session
  login [NAME], starttls, editing on  none      network only: log in, switch to
                                                TLS, switch to the line editor
  mode machine|human                  none      network only: answers framed with a
                                                result code, for programs (stationctl)
  get NAME [OFFSET]                   operator  network only: a Station.DataDir file
                                                in base64 pieces, with size and SHA-256
  points                              viewer    each point: value, unit, quality, age, alarm
  alarms                              viewer    present alarms, unacknowledged first
  ack NAME|all [COMMENT]              operator  acknowledge alarms
  shelve NAME MINUTES [COMMENT]       operator  hide an alarm for a time
  disable|enable NAME [COMMENT]       admin     switch an alarm off or on
  alarm-history [SINCE]               viewer    the alarm journal since a time
  trace-csv                           operator  the trace as CSV: names, units, UTC times
  timing-json                         operator  the task's timing in cyclictest's JSON shape
  outputs [resume]                    viewer    the overrun policy; resume (operator)
                                                releases outputs held in their safe states
  config describe                     viewer    each setting's unit, range and meaning
  device, device list                 viewer    field devices ([Device.NAME]), values
  device recover NAME                 operator  recover a faulted device now

Files (relative to the working folder; the settings name them):
  station.cfg         the settings (-f FILE)
  Station.LocalConfig read after it; "config save" writes there (else into
                      station.cfg)
  station.acl         hosts that may connect (Server.ACL)
  station.users       network users and levels (Station.UsersFile)
  tls/                the station's CA and certificates (Access.TLSFolder):
                      ca.pem, ca.key, server.pem, server.key, NAME.pem/.key,
                      made on the first start
  station*.log        the log (Log.FileBase, Log.Extension, Log.AutoDate)
  sensor-trace.csv    trace dumps, in Station.DumpPath
  station.history     the terminal's command history (0600)
  MQTT.QueueDir, MQTT.PasswordFile   with a broker ([MQTT])

Signals:
  SIGINT, SIGTERM     stop cleanly (Ctrl-C at the terminal clears the line;
                      "exit" there stops the station)
  SIGHUP              reopen the log; read the configuration (main file, local
                      file, overrides), the users file, command keys and the
                      access list again (systemctl reload station)

Settings sections: [Station] [Server] [Network] [TLS] [Login] [Access] [Log]
[LogRetention] [MQTT] [Metrics] [Web]. Every setting with its unit and default:
man station, and station_settings.md (docs/ in the source tree,
/usr/share/doc/zqcommon-station/ when installed); "config show" at the
station lists the current values.)";
}

}  // namespace station
