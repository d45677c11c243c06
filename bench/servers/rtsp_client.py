"""One RTSP client, over TCP, that measures a server: rtsp_client.py URL SECONDS SEEKS FROM PID...

Plays for SECONDS, and prints in a line of name=value pairs what each process of PID used in them: cpu0 (seconds), rss0
(MB) and pss0 (the same, shared pages divided among those who share them), both at the end; cpu1 and so on. Then SEEKS times each a PLAY
elsewhere from what FROM names, of paused,normal,fast: milliseconds from the request to the first RTP packet that
the reply's RTP-Info names, and to the second picture's ("going"), from when on it plays; medians.
"""
import os
import random
import re
import socket
import statistics
import struct
import sys
import time

WARM_UP = 2  # seconds: a server may begin with a burst
BETWEEN = 1.5  # seconds of play between two seeks
SCALES = {"normal": 1, "fast": 4}
LONGEST = 20  # seconds to wait for anything


class Client:
    def __init__(self, url):
        self.url, self.cseq, self.session = url, 0, ""
        host, port = re.match(r"rtsp://([^:]+):(\d+)", url).groups()
        self.socket = socket.create_connection((host, int(port)), LONGEST)
        self.stream = self.socket.makefile("rb")

    def ask(self, method, headers="", track=""):
        self.cseq += 1
        session = f"Session: {self.session}\r\n" if self.session else ""
        self.socket.sendall(f"{method} {self.url}{track} RTSP/1.0\r\nCSeq: {self.cseq}\r\n{session}{headers}\r\n".encode())
        while True:
            reply = self.next()
            if isinstance(reply, dict):
                return reply

    def next(self):
        """An RTP packet's sequence number and time, None for another packet, or a reply's headers and body."""
        first = self.stream.read(1)
        if first == b"$":
            channel, length = struct.unpack(">BH", self.stream.read(3))
            packet = self.stream.read(length)
            return struct.unpack(">HI", packet[2:8]) if channel == 0 else None
        status = (first + self.stream.readline()).decode()
        if " 200 " not in status:
            sys.exit(f"the server says {status!r}")
        headers = {}
        while line := self.stream.readline().decode().strip():
            name, value = line.split(":", 1)
            headers[name.lower()] = value.strip()
        headers["body"] = self.stream.read(int(headers.get("content-length", 0))).decode()
        return headers

    def set_up(self):
        control = re.findall(r"a=control:(\S+)", self.ask("DESCRIBE", "Accept: application/sdp\r\n")["body"])[-1]
        reply = self.ask("SETUP", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", "/" + control.rsplit("/", 1)[-1])
        self.session = reply["session"].split(";")[0]

    def play_for(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.next()

    def seek(self, to):
        """Milliseconds to the first packet, and to the second picture's."""
        began = time.monotonic()
        reply = self.ask("PLAY", f"Scale: 1\r\nRange: npt={to:.3f}-\r\n")
        expected = int(re.search(r"seq=(\d+)", reply["rtp-info"]).group(1))
        first = None
        while time.monotonic() < began + LONGEST:
            packet = self.next()
            if not isinstance(packet, tuple):
                continue
            now = (time.monotonic() - began) * 1000
            if first is None and packet[0] == expected:
                first, stamp = now, packet[1]
            elif first is not None and packet[1] != stamp:
                return first, now
        sys.exit("the play that was asked for does not begin")


def used(pid):
    nanoseconds = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
            nanoseconds += int(file.read().split()[0])
    return nanoseconds / 1e9


def memory(pid, name):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(rf"^{name}:\s+(\d+)", file.read(), re.M).group(1)) / 1024


def main(url, seconds, seeks, states, *pids):
    client = Client(url)
    client.set_up()
    client.ask("PLAY", "Range: npt=0-\r\n")
    client.play_for(WARM_UP)
    before = [used(pid) for pid in pids]
    client.play_for(float(seconds))
    figures = {}
    for n, pid in enumerate(pids):
        figures |= {f"cpu{n}": used(pid) - before[n], f"rss{n}": memory(pid, "Rss"), f"pss{n}": memory(pid, "Pss")}
    for name in states.split(","):
        times = []
        for _ in range(int(seeks)):
            if name == "paused":
                client.ask("PAUSE")
                time.sleep(BETWEEN / 3)
            else:
                client.ask("PLAY", f"Scale: {SCALES[name]}\r\nRange: npt=0-\r\n")
                client.play_for(BETWEEN)
            times.append(client.seek(random.uniform(1, float(seconds))))
        figures[name], figures[name + "Going"] = (statistics.median(column) for column in zip(*times))
    client.ask("TEARDOWN")
    print(" ".join(f"{name}={value:.4f}" for name, value in figures.items()))


if __name__ == "__main__":
    main(*sys.argv[1:])
