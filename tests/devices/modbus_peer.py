#!/usr/bin/python3
"""A Modbus device played by pymodbus, for the device tests and benchmarks.

  modbus_peer.py --tcp PORT          Modbus TCP on 127.0.0.1:PORT
  modbus_peer.py --rtu PATH [BAUD [PARITY]]   Modbus RTU, 8 data bits, 1 stop bit, parity N by
                                     default, on a serial line (one end of a socat pty pair;
                                     pyserial cannot set parity on a pseudo-terminal)

Holding registers: 0 = 1234, 1 = -2 (s16), 2..9 = 21.5 as float in the word
orders abcd, cdab, badc, dcba, 10..11 = 100000 (u32 abcd); 20 registers in all,
so address 50 is illegal. Reading holding register 100 answers "device busy".
Input register 0 = 500; discrete inputs 0..7 = 1,0,1,1,0,0,0,1; coils 0..7
start at 0 and are writable. Stops on SIGTERM."""
import asyncio
import logging
import struct
import sys

from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.pdu import ModbusExceptions
from pymodbus.register_read_message import ReadHoldingRegistersRequest
from pymodbus.server import StartAsyncSerialServer, StartAsyncTcpServer
from pymodbus.transaction import ModbusRtuFramer

logging.disable(logging.CRITICAL)

BUSY = 100
_read_holding = ReadHoldingRegistersRequest.execute


def _busy_or_read(self, context):
    if self.address == BUSY:
        return self.doException(ModbusExceptions.SlaveBusy)
    return _read_holding(self, context)


ReadHoldingRegistersRequest.execute = _busy_or_read


def words(value, order):
    a, b, c, d = struct.pack(">f", value)
    return {"abcd": [a << 8 | b, c << 8 | d], "cdab": [c << 8 | d, a << 8 | b],
            "badc": [b << 8 | a, d << 8 | c], "dcba": [d << 8 | c, b << 8 | a]}[order]


def context():
    holding = [1234, 0xFFFE]
    for order in ("abcd", "cdab", "badc", "dcba"):
        holding += words(21.5, order)
    holding += [100000 >> 16, 100000 & 0xFFFF]
    holding += [0] * (20 - len(holding))
    slave = ModbusSlaveContext(
        di=ModbusSequentialDataBlock(0, [1, 0, 1, 1, 0, 0, 0, 1]),
        co=ModbusSequentialDataBlock(0, [0] * 8),
        hr=ModbusSequentialDataBlock(0, holding),
        ir=ModbusSequentialDataBlock(0, [500] + [0] * 19),
        zero_mode=True)
    return ModbusServerContext(slaves=slave, single=True)


async def main():
    if sys.argv[1] == "--tcp":
        await StartAsyncTcpServer(context=context(), address=("127.0.0.1", int(sys.argv[2])))
    else:
        baud = int(sys.argv[3]) if len(sys.argv) > 3 else 19200
        parity = sys.argv[4] if len(sys.argv) > 4 else "N"
        await StartAsyncSerialServer(context=context(), framer=ModbusRtuFramer, port=sys.argv[2],
                                     baudrate=baud, parity=parity, stopbits=1, bytesize=8, timeout=0.05)


if __name__ == "__main__":
    asyncio.run(main())
