#!/usr/bin/python3
"""An FTP server on 127.0.0.1 that nobody can write to and that logs every command it hears."""

import argparse
import os

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer

LIST_AND_READ = "elr"


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--port", type=int, default=0, help="0: a free one, told as 'port N' on the output")
    parser.add_argument("--root", required=True, help="the folder that is served as /")
    parser.add_argument("--user", required=True)
    parser.add_argument("--password", required=True)
    parser.add_argument("--tls", metavar="CERT.pem", help="certificate and key; offers explicit TLS")
    parser.add_argument("--log", required=True, help="gets a line for each command, as it was sent")
    return parser.parse_args()


def logging_handler(base, log):
    class LoggingHandler(base):
        auth_failed_timeout = 0  # seconds; there is nobody to slow down

        def pre_process_command(self, line, cmd, arg):
            print("PASS ********" if cmd == "PASS" else line, file=log)
            super().pre_process_command(line, cmd, arg)

    return LoggingHandler


def main():
    arguments = parse_arguments()
    base = FTPHandler
    if arguments.tls:
        from pyftpdlib.handlers import TLS_FTPHandler as base

    log = open(arguments.log, "a", buffering=1, encoding="utf-8", errors="surrogateescape")
    handler = logging_handler(base, log)
    handler.authorizer = DummyAuthorizer()
    handler.authorizer.add_user(arguments.user, arguments.password, os.path.abspath(arguments.root), LIST_AND_READ)
    if arguments.tls:
        handler.certfile = arguments.tls

    server = FTPServer(("127.0.0.1", arguments.port), handler)
    print("port", server.address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
