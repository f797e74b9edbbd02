"""As much of an iperf3 server as one client needs to send its data to a receiver of ours.

The control connection carries states, one signed byte each, and JSON blocks led by their
length. The data comes to the same port: over TCP on a second connection, which starts with
the client's cookie, over UDP to a socket whose first datagram wants an answer.
"""
import json
import socket
import struct

COOKIE = 37
TEST_START, TEST_RUNNING, TEST_END = 1, 2, 4
PARAM_EXCHANGE, CREATE_STREAMS = 9, 10
EXCHANGE_RESULTS, DISPLAY_RESULTS, IPERF_DONE = 13, 14, 16
UDP_HELLO, UDP_ANSWER = b"9876", b"6789"
PATIENCE = 10  # seconds


def read_exactly(connection, size):
    data = b""
    while len(data) < size:
        part = connection.recv(size - len(data))
        if not part:
            raise ConnectionError("the iperf3 client has hung up")
        data += part
    return data


def read_block(connection):
    (length,) = struct.unpack(">I", read_exactly(connection, 4))
    return json.loads(read_exactly(connection, length))


def write_block(connection, content):
    text = json.dumps(content).encode()
    connection.sendall(struct.pack(">I", len(text)) + text)


class Server:
    """Takes one client through one test with one stream."""

    def __init__(self, udp):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(PATIENCE)
        self.port = self.listener.getsockname()[1]
        self.control = self.data = None
        if udp:
            self.data = socket.socket(type=socket.SOCK_DGRAM)
            self.data.bind(("127.0.0.1", self.port))
            self.data.settimeout(PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for part in (self.listener, self.control, self.data):
            if part:
                part.close()

    def meet(self):
        """Until the client has its data stream: the socket where the data will come."""
        self.control, cookie = self._accept()
        self._say(PARAM_EXCHANGE)
        read_block(self.control)
        self._say(CREATE_STREAMS)
        if self.data:
            hello, client = self.data.recvfrom(len(UDP_HELLO))
            if hello != UDP_HELLO:
                raise ConnectionError(f"the iperf3 client has begun with {hello}")
            self.data.sendto(UDP_ANSWER, client)
        else:
            self.data, same = self._accept()
            if same != cookie:
                raise ConnectionError("another iperf3 client has come")
        return self.data

    def begin(self):
        """The client sends from here on."""
        self._say(TEST_START)
        self._say(TEST_RUNNING)

    def end(self):
        """Dismisses a client that has sent everything."""
        self._hear(TEST_END)
        self._say(EXCHANGE_RESULTS)
        results = read_block(self.control)
        write_block(self.control, results)  # it reads the same fields back
        self._say(DISPLAY_RESULTS)
        self._hear(IPERF_DONE)

    def _accept(self):
        connection, _ = self.listener.accept()
        connection.settimeout(PATIENCE)
        # The client spins until it may start: no state waits for the one before it.
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection, read_exactly(connection, COOKIE)

    def _say(self, state):
        self.control.sendall(struct.pack("b", state))

    def _hear(self, state):
        (heard,) = struct.unpack("b", read_exactly(self.control, 1))
        if heard != state:
            raise ConnectionError(f"the iperf3 client is in state {heard}, not {state}")
