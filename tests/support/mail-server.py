#!/usr/bin/python3
"""mail-server.py CERTIFICATE KEY USER PASSWORD

A mail server on 127.0.0.1 that takes mail after STARTTLS and a sign-in only. Prints its port, and then each mail
as a line of JSON. Ends when it is killed.
"""

import base64
import json
import ssl
import sys
import threading

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import SMTP, AuthResult


class Handler:
    async def handle_DATA(self, server, session, envelope):
        print(
            json.dumps(
                {
                    "from": envelope.mail_from,
                    "to": envelope.rcpt_tos,
                    "mail": base64.b64encode(envelope.original_content).decode(),
                    "user": session.auth_data.login.decode(),
                    "tls": session.ssl is not None,
                }
            ),
            flush=True,
        )
        return "250 taken"


def main():
    certificate, key, user, password = sys.argv[1:]
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)

    def authenticator(server, session, envelope, mechanism, data):
        right = data.login == user.encode() and data.password == password.encode()
        return AuthResult(success=right, handled=False, auth_data=data)

    class AnyPort(Controller):
        def factory(self):
            return SMTP(
                self.handler,
                enable_SMTPUTF8=True,
                require_starttls=True,
                tls_context=context,
                authenticator=authenticator,
                auth_required=True,
            )

        def _trigger_server(self):
            # The controller looks for itself at the port that it was given, not at the one that it has got.
            self.port = self.server.sockets[0].getsockname()[1]
            super()._trigger_server()

    controller = AnyPort(Handler(), hostname="127.0.0.1", port=0)
    controller.start()
    print(controller.port, flush=True)
    threading.Event().wait()


main()
