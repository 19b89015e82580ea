#!/usr/bin/env bash
# Runs one libFuzzer target under ASan and UBSan.
#   scripts/fuzz.sh config|readln|cli|subst|acl|cfgentry|settings|station|fleetcmd|signedcmd|format|users|login|stationctl|deviceurl|modbusserver|web [SECONDS]   (default 30)
# Crashing inputs are left in the build folder as crash-*; each target's
# corpus grows in build-fuzz/corpus-TARGET and is reused by later runs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:?usage: fuzz.sh config|readln|cli|subst|acl|cfgentry|settings|autosave|station|fleetcmd|signedcmd|format|users|login|stationctl|deviceurl|modbusserver|web [SECONDS]}
seconds=${2:-30}
build=${BUILD_DIR:-$root/build-fuzz}
# ZQ_FUZZ_BUILT=1: the target is built already (scripts/fuzz-all.sh builds them together).
if [[ ${ZQ_FUZZ_BUILT:-0} != 1 ]]; then
  bash "$root/scripts/fuzz-all.sh" --build-only "$target"
fi

corpus="$build/corpus-$target"
mkdir -p "$corpus"
case "$target" in
  config)
    printf '[Net]\n  port = 4711   # tcp\nhost="a#b" # c\n\n[General\n= x\n[]\nmy key=5\n' > "$corpus/seed1"
    printf '#!magic\r\n[s]\r\nk = \\"q # c\r\r\n\0z=1\n' > "$corpus/seed2"
    # Lines at the reader's 1023-character limit.
    { printf '[s]\nk='; head -c 1021 /dev/zero | tr '\0' x; printf '\n['; head -c 1022 /dev/zero | tr '\0' y
      printf '\nz=1\n'; } > "$corpus/seed3" ;;
  readln)
    printf 'abc\r\n\r\ndef\nset x 1 # note\nab\bc\n\bz\n\n\rlast' > "$corpus/seed1"
    printf '\0\0\n\r\r\n#\n\b\b\bq\n' > "$corpus/seed2" ;;
  format)  # 8 bytes of a double, a buffer size / 2, then the format
    printf '\x9a\x99\x99\x99\x99\x99\xf1\x3f\x80sensor %%d out of range: %%.3f' > "$corpus/seed1"
    printf '\x00\x00\x00\x00\x00\x00\xf0\x7f\x03%%-#012.4g|%%+x|%%5.1e|%%lu' > "$corpus/seed2" ;;
  cli)
    printf 'echo $VERSION x\nset a=1\necho $a$$?\nhe\t\nec\t hi\n\x1b[A\x1b[A\x1b[B\n' > "$corpus/seed1"
    printf 'app 1 2\nsub\nhelp app\nhistory\nquit\n\x1b[1~\x7f\x08\x0cexit\n' > "$corpus/seed2"
    # An odd first byte: the line editor, 10 columns.
    printf ')echo h\xc3\xa9llo wor\x1b[D\x1b[Dld\x01\x1bf\x17\x19\x14\r\x12ec\x12\x1b[C\x0b\x15app a\t\t\r' > "$corpus/seed3"
    printf '#\x1b[1;5D\x1bOH\x1b[3~\x1b[99999999999999999999~\xff\xc3(\x0c\x13x\x07\x03help app\r\x04' > "$corpus/seed4" ;;
  subst)
    printf 'set a=1\nset ab=XY\nset $a=D\nrun x $a y $ab$a$$?\nset z=zz\necho $z$z$z$z$HOME\n' > "$corpus/seed1"
    { printf 'set a='; head -c 2000 /dev/zero | tr '\0' x; printf '\nset b='
      for _ in $(seq 100); do printf '$a'; done; printf '\necho $bbbb\n'; } > "$corpus/seed2" ;;
  acl)
    printf '[hosts]\nallow = 127.0.0.1 10.0.0.0/8 192.168.1.0/255.255.255.0\ndeny = 10.1.2.3\n' > "$corpus/seed1"
    printf '[hosts]\nallow = 0.0.0.0/0 localhost ::1 999.1.1.1/33 /\n' > "$corpus/seed2"
    printf '[hosts]\nallow = 127.0.0.1/32 ::1/128 10.0.0.0/255.0.0.0\ndeny = fe80::/10 ::ffff:10.1.0.0/112\n' > "$corpus/seed3"
    printf '[hosts]\nallow = ::/129 1.2.3.4 x/8 ::1/ /32\nallo = 1\n[other]\ndeny=0.0.0.0/0\n' > "$corpus/seed4" ;;
  station)
    printf 'status\ncrc data.txt\nhash sha256 data.txt\ncrc fifo\ncrc sub\ncrc out\ncrc ../../etc/passwd\n' > "$corpus/seed1"
    printf 'config set Station.PeriodUs 12x\nconfig set Log.FileBase /root/\nconfig\ntrace start\ntrace dump\nfit\nset a=%%n%%s\nhelp\n' > "$corpus/seed2"
    printf 'mode machine\nget data.txt\nget data.txt 5\nget data.txt 99\nget out\nget fifo 0\nmode human\nmode x\n' > "$corpus/seed3"
    printf 'points\nalarms\nack all seen\nack sensor\nshelve sensor 5 work\nshelve sensor 0\ndisable sensor\nenable sensor x\nalarm-history 10m\nalarm-history 2026-11-25T19:00:00Z\ntrace-csv\ntiming-json\n' > "$corpus/seed4" ;;
  autosave)  # a complete state file, and one without its end marker
    printf '# zq autosave\nStation.Setpoint = 42.5\nShelved.sensor = 1764102000000000\nend 2 00000000\n' > "$corpus/seed1"
    printf '# zq autosave\na = b\n' > "$corpus/seed2" ;;
  users)  # the first line is the password, the rest the users file
    h='scrypt$16$1$1$000102030405060708090a0b0c0d0e0f$f4f9ef50fde105b8e988b5c2b9cbbb74037fb3b0ef2ef516140c22ce8f4f3e4f'
    printf 'secret\n# operators\n[users]\nop = viewer:%s\nroot = admin:%s ; x\n' "$h" "$h" > "$corpus/seed1"
    printf 'pw\n[users]\na = admin:scrypt$1048576$16$16$00$00\n[other]\nx\n[users\nb=operator:scrypt$4$1$1$$\n' > "$corpus/seed2" ;;
  login)  # the users file names op (viewer, password secret)
    printf 'login\nop\nsecret\nstatus\nconfig set Station.PeriodUs 5\nhelp\nconfig\n' > "$corpus/seed1"
    printf 'status\nlogin op\nwrong\nlogin nobody\nstarttls\nlogin op extra\nsecret\ntrace dump\nset a=b\n' > "$corpus/seed2" ;;
  cfgentry)
    printf '\x00-12' > "$corpus/seed1"; printf '\x033M' > "$corpus/seed2"; printf '\x0a0777' > "$corpus/seed3"
    printf '\x061e308' > "$corpus/seed4"; printf '\x08int' > "$corpus/seed5"; printf '\x01LOAD,SAVE' > "$corpus/seed6" ;;
  settings)
    printf '[S]\ni = 0x10 # c\nd = 2,5x\nscaled = 4k\nb = 1\n\n[T]\nk = 1\n[S]\nk = 2\n' > "$corpus/seed1"
    printf '# only\n[s]\r\nK=\r\nchars = abcdefghij\nl = 2\n[S\nk = # c' > "$corpus/seed2" ;;
  stationctl)  # get pieces (sha256 of "hello\n"), then a status answer
    h=5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03
    printf 'file a size 6 sha256 %s offset 0 length 3\r\naGVs\r\n. 0\r\nfile a size 6 sha256 %s offset 3 length 3\r\nbG8K\r\n. 0\r\n' "$h" "$h" > "$corpus/seed1"
    printf 'cycles 5, period 1000 us, cycle length min/avg/max 1.0/2.5/9.0 us\nrunning 1.0 s; reading 42.5 (x)\nsensor_high: WARNING, 1\ncycle_overrun: NONE, 0\n..x\n. 1\n' > "$corpus/seed2" ;;
  fleetcmd)
    printf '{"cmd":"status","station":"s1","n":-1.5e3,"t":true,"z":null}' > "$corpus/seed1"
    printf ' {"cmd" : "echo \\"a\\u00e9\\t\\/" , "x":"y"} ' > "$corpus/seed2" ;;
  signedcmd)  # the fuzzer's clock reads 2026-11-18T11:06:40Z; alice has a key
    n='"nonce":"00112233445566778899aabbccddeeff"'
    printf '{"cmd":"io set inject","station":"s1","user":"alice","time":"2026-11-18T11:06:40Z",%s,"sig":"%s"}' \
      "$n" "$(head -c 64 /dev/zero | od -An -tx1 | tr -d ' \n')" > "$corpus/seed1"
    printf '{"cmd":"status","station":"s1","user":"bob","time":"2026-11-18T11:06:55.250Z",%s,"sig":"zz"}' "$n" \
      > "$corpus/seed2" ;;
  deviceurl)
    printf 'modbus-tcp://[fe80::1]:1502/' > "$corpus/seed1"; printf 'modbus-tcp://plc-3.local' > "$corpus/seed2"
    printf 'modbus-rtu:///dev/ttyUSB0?baud=19200&parity=E&data=8&stop=1&rs485=1&rts_before=2' > "$corpus/seed3" ;;
  web)  # first byte: 0 form, 1 cookie, 2 command JSON, 3 subscription, 4 time, 5 token
    printf '\0user=ada&password=a%%2Bb+c%%zz&&=x&user=2' > "$corpus/seed1"
    printf '\1a=1; zqsid=0123abcd;b=2;  zqsid=x' > "$corpus/seed2"
    printf '\2{"command": "ack T1 checked \\u00e9", "x": [1, {"y": null}]}' > "$corpus/seed3"
    printf '\3{"subscribe": ["T1", "P1", 7], "io": true}' > "$corpus/seed4"
    printf '\4%s' 2026-11-25T19:00:00.5Z > "$corpus/seed5" ;;
  modbusserver)  # first byte: bit 0 lets the client write; then MBAP frames
    printf '\x01\x00\x01\x00\x00\x00\x06\x01\x01\x00\x00\x00\x10\x00\x02\x00\x00\x00\x06\x01\x05\x00\x01\xff\x00' > "$corpus/seed1"
    printf '\x01\x00\x03\x00\x00\x00\x08\x01\x0f\x00\x01\x00\x02\x01\x03\x00\x04\x00\x00\x00\x06\x01\x04\x00\x00\x00\x06' > "$corpus/seed2"
    printf '\x00\x00\x05\x00\x00\x00\x06\x01\x06\x00\x00\x00\x07\x00\x06\x00\x00\xff\xff\x01\x10' > "$corpus/seed3" ;;
  modbusclient)  # request byte (function, transaction and unit made to match), count, then the answer
    printf '\x1b\x00\x01\x00\x01\x00\x00\x00\x07\x09\x03\x04\x12\x34\x56\x78' > "$corpus/seed1"
    printf '\x19\x00\x09\x00\x01\x00\x00\x00\x05\x09\x01\x02\x85\x02' > "$corpus/seed2"
    printf '\x18\x00\x00\x00\x01\x00\x00\x00\x06\x09\x05\x00\x03\xff\x00' > "$corpus/seed3"
    printf '\x1b\x00\x01\x00\x01\x00\x00\x00\x03\x09\x83\x02' > "$corpus/seed4" ;;
esac

cd "$build"
export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"./tests/fuzz/${target}_fuzz" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 \
  -rss_limit_mb=2048 "$corpus" 2>&1 | tail -n 12
