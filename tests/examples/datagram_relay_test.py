"""datagram_relay sends on what it receives, inverted, once and whole; its counts add up; it never stalls.

    datagram_relay_test.py COMMAND...

The tests are on both ends of the relay: they send datagrams to it and receive what it sends. All ports are chosen by
the system. Whatever does not happen within the time limit is a failure that says so.
"""

import random
import select
import signal
import socket
import subprocess
import sys
import time
import unittest

command = sys.argv[1:]
TIME_LIMIT = 20  # seconds without any progress
LOOPBACK = "127.0.0.1"
INVERTED = bytes(255 - byte for byte in range(256))
# Datagrams under way, so few that neither the sockets nor the queue of the loopback device can overflow.
WINDOW = 48
LONGEST = 1400
# What the relay counts, each with a line in its statistics.
RECEIVED = "received"
DROPPED = "dropped by the kernel, unread"
SENT = "sent"
REFUSED = "could not be sent"
PAUSES = "pauses for want of a block"
LENT = "still lent"


def bytesWaitingAndDatagramsDropped(port):
    """What the kernel says of the socket that receives at a port of the loopback device."""
    with open("/proc/net/udp", encoding="ascii") as sockets:
        columns = next(line.split() for line in sockets if f" 0100007F:{port:04X} " in line)
    return int(columns[4].split(":")[1], 16), int(columns[12])


class Relay:
    """A running relay, and a socket that receives what it sends."""

    def __init__(self, test, *options, destination=None):
        self.test = test
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        test.addCleanup(self.socket.close)
        self.socket.bind((LOOPBACK, 0))
        self.socket.settimeout(TIME_LIMIT)
        to = destination or self.socket.getsockname()[1]
        self.process = subprocess.Popen([*command, f"{LOOPBACK}:0", f"{LOOPBACK}:{to}", *options],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        test.addCleanup(self.kill)
        if not select.select([self.process.stdout], [], [], TIME_LIMIT)[0]:
            test.fail(f"the relay does not start within {TIME_LIMIT} s")
        line = self.process.stdout.readline()
        if not line.startswith("receiving at port "):
            test.fail(f"the relay does not start: {line}{self.process.communicate(timeout=TIME_LIMIT)[1]}")
        self.address = (LOOPBACK, int(line.split()[-1]))

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()

    def send(self, datagram):
        self.socket.sendto(datagram, self.address)

    def receive(self):
        """What came, inverted back."""
        try:
            return self.socket.recv(65536).translate(INVERTED)
        except TimeoutError:
            self.test.fail(f"the relay stalls: nothing came for {TIME_LIMIT} s")

    def waitUntilAllIsRead(self):
        """Until nothing waits in the relay's own socket."""
        begun = time.monotonic()
        while time.monotonic() < begun + TIME_LIMIT:
            if bytesWaitingAndDatagramsDropped(self.address[1])[0] == 0:
                return
            time.sleep(0.01)
        self.test.fail(f"the relay stalls: its socket is not read within {TIME_LIMIT} s")

    def end(self, number=signal.SIGINT):
        """Its statistics, once a signal has ended it."""
        self.process.send_signal(number)
        try:
            output, errors = self.process.communicate(timeout=TIME_LIMIT)
        except subprocess.TimeoutExpired:
            self.test.fail(f"the relay does not end within {TIME_LIMIT} s of the signal")
        self.test.assertEqual((self.process.returncode, errors), (0, ""))
        figures = {name: int(value) for name, value in (line.split(": ") for line in output.splitlines())}
        self.test.assertEqual(figures[LENT], 0, "blocks are lost")
        self.test.assertEqual(figures[RECEIVED], figures[SENT] + figures[REFUSED])
        self.test.assertLessEqual(figures[PAUSES], figures[RECEIVED], "a pause ended without a block")
        return figures


class DatagramRelay(unittest.TestCase):
    def exchange(self, relay, count):
        """Sends numbered datagrams of all lengths. Each comes back once and whole."""
        choice = random.Random(1)
        noise = choice.randbytes(2 * LONGEST)
        underWay = {}
        for number in range(count):
            datagram = number.to_bytes(4, "big") + noise[choice.randrange(LONGEST):][:choice.randrange(LONGEST - 4)]
            underWay[datagram[:4]] = datagram
            relay.send(datagram)
            while len(underWay) == WINDOW or (underWay and number == count - 1):
                came = relay.receive()
                sent = underWay.pop(came[:4], None)
                if came != sent:
                    self.fail(f"after {number} datagrams one came that was not under way" if sent is None else
                              f"datagram {int.from_bytes(came[:4], 'big')} is corrupted")

    def relays(self, count, *options):
        relay = Relay(self, *options)
        self.exchange(relay, count)
        figures = relay.end()
        self.assertEqual((figures[RECEIVED], figures[DROPPED], figures[SENT]), (count, 0, count))
        return figures

    def test_relaysTwoHundredThousandWithFewBlocksAndLargeCaches(self):
        figures = self.relays(200000, "--blocks", "4", "--workers", "8", "--cache", "64")
        self.assertGreater(figures[PAUSES], 0)

    def test_relaysWithAnyNumberOfBlocksAndWorkers(self):
        for options in ("1", "1", "1"), ("1", "8", "64"), ("3", "2", "1"), ("64", "2", "8"), ("1000", "1", "1000"):
            with self.subTest(options):
                self.relays(2000, "--blocks", options[0], "--workers", options[1], "--cache", options[2])

    def test_relaysTheShortestAndTheLongest(self):
        relay = Relay(self)
        for length in 0, 1, 65507:
            relay.send(bytes(length))
            self.assertEqual(relay.receive(), bytes(length))
        self.assertEqual(relay.end()[SENT], 3)

    def test_countsWhatTheKernelDrops(self):
        """A relay that stands still loses what the socket has no room for; the rest it relays when it goes on."""
        count = 4000
        relay = Relay(self, "--blocks", "4")
        relay.process.send_signal(signal.SIGSTOP)
        for number in range(count):
            relay.send(number.to_bytes(4, "big") + bytes(LONGEST))
            if number % 100 == 0:
                time.sleep(0.001)  # the queue of the loopback device, which counts for itself, stays short
        relay.process.send_signal(signal.SIGCONT)
        relay.waitUntilAllIsRead()
        figures = relay.end()
        relay.socket.setblocking(False)
        came = 0
        try:
            while relay.socket.recv(65536):
                came += 1
        except BlockingIOError:
            pass
        self.assertGreater(came, 0)
        self.assertGreater(figures[DROPPED], 0)
        self.assertEqual(figures[RECEIVED] + figures[DROPPED], count)
        lost = bytesWaitingAndDatagramsDropped(relay.socket.getsockname()[1])[1]
        self.assertEqual(figures[SENT], came + lost)

    def test_countsWhatNobodyTakes(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as closed:
            # Nobody else gets its port, and it takes nothing but from the one that it is connected to.
            closed.bind((LOOPBACK, 0))
            closed.connect((LOOPBACK, 9))
            relay = Relay(self, destination=closed.getsockname()[1])
            for _ in range(100):
                relay.send(b"nobody is there")
            relay.waitUntilAllIsRead()
            self.assertGreater(relay.end()[REFUSED], 0)

    def test_endsUnderTraffic(self):
        """What it has received by then, it sends."""
        for number in signal.SIGINT, signal.SIGTERM:
            relay = Relay(self, "--blocks", "4", "--workers", "8", "--cache", "64")
            self.exchange(relay, 1000)
            for _ in range(WINDOW):
                relay.send(b"late")
            figures = relay.end(number)
            self.assertGreaterEqual(figures[SENT], 1000)
            self.assertEqual(figures[REFUSED], 0)

    def test_refusesWrongUsage(self):
        here = f"{LOOPBACK}:0"
        there = f"{LOOPBACK}:9"
        for arguments in ([], [here], [here, there, "--blocks"], [here, there, "--blocks", "0"],
                          [here, there, "--workers", "257"], [here, there, "--cache", "1x"], [here, there, "--no", "1"],
                          [LOOPBACK, there], ["localhost:0", there], [f"{LOOPBACK}:65536", there], [here, here]):
            with self.subTest(arguments):
                ended = subprocess.run([*command, *arguments], capture_output=True, text=True, timeout=TIME_LIMIT,
                                       check=False)
                self.assertEqual((ended.returncode, ended.stdout), (1, ""))
                self.assertRegex(ended.stderr, r"\Adatagram_relay: .*; usage: datagram_relay FROM TO .*\n\Z")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
