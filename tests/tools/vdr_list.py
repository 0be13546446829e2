# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later
"""vdr_list.py FOLDER LOG CHANNEL=FREQ... : starts vdr on FOLDER/channels.conf, prints the channels as vdr has read them,
in the form of that file, and switches to each CHANNEL, a number, until the adapter's LOG says that FREQ was asked for.
Everything that vdr writes stays in FOLDER."""

import os
import socket
import subprocess
import sys
import time

folder = sys.argv[1]
for name, text in {"sources.conf": "T DVB-T\n", "svdrphosts.conf": "127.0.0.1\n",
                   "setup.conf": "UpdateChannels = 0\n"}.items():
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        file.write(text)
for name in ("video", "cache"):
    os.mkdir(os.path.join(folder, name))
with socket.socket() as free:
    free.bind(("127.0.0.1", 0))
    port = free.getsockname()[1]

vdr = subprocess.Popen(["vdr", "-D", "0", "--no-kbd", "-c", folder, "-v", os.path.join(folder, "video"),
                        "--cachedir=" + os.path.join(folder, "cache"), "-E-", "-p", str(port), "-l", "1"],
                       stdin=subprocess.DEVNULL)
try:
    for _ in range(600):
        try:
            connection = socket.create_connection(("127.0.0.1", port), 60)
            break
        except OSError:
            if vdr.poll() is not None:
                sys.exit(f"vdr ended with {vdr.returncode}")
            time.sleep(0.1)
    else:
        sys.exit("vdr does not answer")
    stream = connection.makefile("rw", encoding="utf-8", newline="")

    def answer():
        """The lines of an answer, without code; the last one has a blank behind its code."""
        lines = []
        while True:
            line = stream.readline().rstrip("\r\n")
            lines.append(line[4:])
            if line[3:4] != "-":
                return lines

    def ask(command):
        stream.write(command + "\r\n")
        stream.flush()
        return answer()

    answer()
    for line in ask("LSTC :groups"):
        print(line.split(" ", 1)[1].rstrip())
    for switch in sys.argv[3:]:
        channel, freq = switch.split("=")
        print("switching:", *ask("CHAN " + channel))
        for _ in range(600):
            with open(sys.argv[2], encoding="utf-8") as log:
                if f" 3={freq} " in log.read():
                    break
            time.sleep(0.1)
    ask("QUIT")
finally:
    vdr.terminate()
    vdr.wait()
