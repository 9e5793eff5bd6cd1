#!/usr/bin/python3
"""Reads a mail from standard input and prints what Python's email package makes of it, as JSON."""

import json
import sys
from email import message_from_bytes, policy


def main():
    mail = message_from_bytes(sys.stdin.buffer.read(), policy=policy.default)
    date = mail["Date"].datetime
    defects = list(mail.defects)
    for name in mail.keys():
        defects += mail[name].defects
    json.dump(
        {
            "from": str(mail["From"]),
            "to": [address.addr_spec for address in mail["To"].addresses],
            "subject": str(mail["Subject"]),
            "id": str(mail["Message-ID"]),
            "at": int(date.timestamp()),
            "offset": int(date.utcoffset().total_seconds()),
            "type": str(mail["Content-Type"]),
            "headers": mail.keys(),
            "text": mail.get_content(),
            "defects": [str(defect) for defect in defects],
        },
        sys.stdout,
    )


main()
