#!/usr/bin/env python3
"""The server side of the start-TLS client test, built on Python's ssl module.

    tls_peer.py server         listen on 127.0.0.1, print the port

Exchange: PLAIN hello / PLAIN ok / STARTTLS / GO in clear text, then TLS 1.2
with anonymous Diffie-Hellman, then SECRET ping / SECRET pong encrypted.
Exits 0 when every line was as expected.
"""
import base64
import os
import socket
import ssl
import sys
import tempfile


def modp_prime(bits, k):
    """The MODP prime of RFC 2409/3526: 2^n - 2^(n-64) - 1 + 2^64 (floor(2^(n-130) pi) + k)."""
    guard = 64
    scale = 1 << (bits - 130 + guard)

    def arctan_inv(x):
        total, term, n, sign = 0, scale // x, 1, 1
        while term:
            total += sign * (term // n)
            term //= x * x
            n += 2
            sign = -sign
        return total

    pi_scaled = (16 * arctan_inv(5) - 4 * arctan_inv(239)) >> guard
    return 2 ** bits - 2 ** (bits - 64) - 1 + 2 ** 64 * (pi_scaled + k)


def dh_params_pem(prime):
    def der_len(n):
        if n < 128:
            return bytes([n])
        raw = n.to_bytes((n.bit_length() + 7) // 8, "big")
        return bytes([0x80 | len(raw)]) + raw

    def der_int(v):
        raw = v.to_bytes(v.bit_length() // 8 + 1, "big")
        return b"\x02" + der_len(len(raw)) + raw

    body = der_int(prime) + der_int(2)
    der = b"\x30" + der_len(len(body)) + body
    return "-----BEGIN DH PARAMETERS-----\n" + base64.encodebytes(der).decode() + "-----END DH PARAMETERS-----\n"


def server_context():
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.minimum_version = ssl.TLSVersion.TLSv1_2
    ctx.maximum_version = ssl.TLSVersion.TLSv1_2
    ctx.set_ciphers("ADH:@SECLEVEL=0")
    with tempfile.NamedTemporaryFile("w", suffix=".pem", delete=False) as f:
        f.write(dh_params_pem(modp_prime(2048, 124476)))
    ctx.load_dh_params(f.name)
    os.unlink(f.name)
    return ctx


def readline(sock):
    data = b""
    while not data.endswith(b"\n"):
        chunk = sock.recv(1)
        if not chunk:
            break
        data += chunk
    return data.decode().rstrip("\r\n")


def expect(sock, want):
    got = readline(sock)
    if got != want:
        sys.exit("expected %r, got %r" % (want, got))


def main():
    if sys.argv[1:] != ["server"]:
        sys.exit("usage: tls_peer.py server")
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    print(listener.getsockname()[1], flush=True)
    sock, _ = listener.accept()
    sock.settimeout(10)
    expect(sock, "PLAIN hello")
    sock.sendall(b"PLAIN ok\r\n")
    expect(sock, "STARTTLS")
    sock.sendall(b"GO\r\n")
    tls = server_context().wrap_socket(sock, server_side=True)
    expect(tls, "SECRET ping")
    tls.sendall(b"SECRET pong\r\n")
    tls.close()
    print("peer ok", file=sys.stderr)


main()
