"""Starts and stops servers:  python3 -m servers start NAME DIR | stop DIR"""

import sys
import time

from . import KINDS, Server, ServerError

USAGE = f"""usage: python3 -m servers start NAME DIR
       python3 -m servers stop DIR
NAME is one of: {" ".join(KINDS)}"""


def main(arguments):
    match arguments:
        case ["start", name, directory] if name in KINDS:
            begin = time.monotonic()
            server = KINDS[name](directory)
            server.start()
            print(f"{name} is ready after {time.monotonic() - begin:.2f} s: {server.info_path}")
        case ["stop", directory]:
            Server(directory).stop()
        case _:
            print(USAGE, file=sys.stderr)
            return 2
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except ServerError as error:
        print(f"servers: {error}", file=sys.stderr)
        sys.exit(1)
