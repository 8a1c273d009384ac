#!/usr/bin/python3
"""The SMTP server of the e-mail notices' tests (Debian's python3-aiosmtpd).

Listens on a loopback port of the system's choice and writes it to
--port-file once it accepts connections. Each message received goes to the
mailbox folder as NNNN.eml (the bytes as they came, after DATA), with the
envelope beside it as NNNN.env ("from ADDRESS" and one "to ADDRESS" a line),
written before the .eml appears. --tls starttls (STARTTLS offered and
required before AUTH and MAIL), smtps (TLS from the start) or none; the
certificate is --cert/--key. AUTH (PLAIN, LOGIN) accepts --user/--password
only and is required before MAIL.

--show FILE prints a received message as Python's email package reads it:
each header as "Name: decoded value" in order, a blank line, and the body
decoded from its transfer encoding.
"""
import argparse
import asyncio
import email
import email.policy
import itertools
import os
import socket
import ssl
import sys


def show(path):
    with open(path, "rb") as f:
        message = email.message_from_binary_file(f, policy=email.policy.default)
    out = "".join("%s: %s\n" % (name, value) for name, value in message.items())
    out += "\n" + message.get_content()
    sys.stdout.buffer.write(out.encode("utf-8", "surrogateescape"))


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--show":
        show(sys.argv[2])
        return
    from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

    parser = argparse.ArgumentParser()
    parser.add_argument("--mailbox", required=True)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--tls", choices=["starttls", "smtps", "none"], default="starttls")
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--user", required=True)
    parser.add_argument("--password", required=True)
    args = parser.parse_args()

    context = None
    if args.tls != "none":
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(args.cert, args.key)
    numbers = itertools.count(1)

    class Mailbox:
        async def handle_DATA(self, server, session, envelope):
            number = next(numbers)
            base = os.path.join(args.mailbox, "%04d" % number)
            with open(base + ".env.tmp", "w", encoding="utf-8") as env:
                env.write("from %s\n" % envelope.mail_from)
                for to in envelope.rcpt_tos:
                    env.write("to %s\n" % to)
            os.rename(base + ".env.tmp", base + ".env")
            with open(base + ".eml.tmp", "wb") as eml:
                eml.write(envelope.original_content)
            os.rename(base + ".eml.tmp", base + ".eml")
            return "250 2.0.0 OK queued as %04d" % number

    def authenticate(server, session, envelope, mechanism, auth_data):
        ok = (isinstance(auth_data, LoginPassword) and auth_data.login == args.user.encode()
              and auth_data.password == args.password.encode())
        return AuthResult(success=ok, handled=False)

    def protocol():
        return SMTP(Mailbox(), hostname="mail.test",
                    tls_context=context if args.tls == "starttls" else None,
                    require_starttls=args.tls == "starttls",
                    authenticator=authenticate, auth_required=True,
                    # Behind smtps the protocol does not see the TLS below it.
                    auth_require_tls=args.tls == "starttls")

    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.bind(("127.0.0.1", 0))
    sock.listen(16)
    loop = asyncio.new_event_loop()
    loop.run_until_complete(loop.create_server(
        protocol, sock=sock, ssl=context if args.tls == "smtps" else None))
    with open(args.port_file + ".tmp", "w") as f:
        f.write("%d\n" % sock.getsockname()[1])
    os.rename(args.port_file + ".tmp", args.port_file)
    loop.run_forever()


if __name__ == "__main__":
    main()
