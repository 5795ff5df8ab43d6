#!/usr/bin/python3
"""A real mail server on loopback for the tests (aiosmtpd).

Prints "READY <port>" once it listens, then writes every message it accepts to
<out>/mail-<n>.json, decoded by Python's own mail parser: what a mail client would show.
--tls DIR makes a self-signed certificate for 127.0.0.1 in DIR (cert.pem, the one the test
trusts) and requires STARTTLS; --smtps serves TLS from the first byte instead.
"""
import argparse
import json
import os
import socket
import ssl
import subprocess
import threading
from email import policy
from email.parser import BytesParser

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult, LoginPassword


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_certificate(folder):
    os.makedirs(folder, exist_ok=True)
    cert, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                    "-keyout", key, "-out", cert, "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"],
                   check=True, capture_output=True)
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(cert, key)
    return context


class Handler:
    def __init__(self, out):
        self.out = out
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        message = BytesParser(policy=policy.default).parsebytes(envelope.original_content)
        body = message.get_body(preferencelist=("plain",))
        record = {
            "mailFrom": envelope.mail_from,
            "rcptTos": envelope.rcpt_tos,
            "tls": session.ssl is not None
            or server.transport.get_extra_info("ssl_object") is not None,
            "login": session.login_data.decode() if isinstance(session.login_data, bytes)
            else (session.login_data or ""),
            "subject": str(message["Subject"]),
            "from": str(message["From"]),
            "to": str(message["To"]),
            "date": str(message["Date"]),
            "messageId": str(message["Message-ID"]),
            "mimeVersion": str(message["MIME-Version"]),
            "contentType": message.get_content_type(),
            "body": body.get_content() if body is not None else "",
            "attachments": [{"filename": part.get_filename(), "type": part.get_content_type(),
                             "size": len(part.get_content())}
                            for part in message.iter_attachments()],
            "defects": [type(d).__name__ for d in message.defects],
        }
        self.count += 1
        path = os.path.join(self.out, "mail-%d.json" % self.count)
        with open(path + ".part", "w", encoding="utf-8") as f:
            json.dump(record, f, ensure_ascii=False)
        os.replace(path + ".part", path)
        return "250 2.0.0 Message accepted"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--out", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--user")
    parser.add_argument("--password")
    parser.add_argument("--tls", metavar="DIR")
    parser.add_argument("--smtps", action="store_true")
    args = parser.parse_args()

    def authenticator(server, session, envelope, mechanism, data):
        ok = (isinstance(data, LoginPassword) and data.login.decode() == args.user
              and data.password.decode() == args.password)
        # handled=False: let the server answer 535 itself.
        return AuthResult(success=ok, handled=False, auth_data=data)

    context = make_certificate(args.tls) if args.tls else None
    options = {}
    if args.user:
        options.update(authenticator=authenticator, auth_required=True,
                       auth_require_tls=context is not None)
    if context and args.smtps:
        options["ssl_context"] = context
    elif context:
        options.update(tls_context=context, require_starttls=True)
    port = args.port or free_port()
    controller = Controller(Handler(args.out), hostname="127.0.0.1", port=port, **options)
    controller.start()
    print("READY %d" % port, flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
