"""Local services of the gateway: what a session is connected to."""
import queue
import socket
import threading

from .waiting import SCALE


class LocalService:
    """Listens; the test itself takes each connection and plays the service."""

    def __init__(self, receive_buffer=None):
        self._listener = socket.socket()
        if receive_buffer:
            self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(64)
        self.port = self._listener.getsockname()[1]

    def accept(self, seconds=5):
        """The next connection, whose reads fail after the same time."""
        self._listener.settimeout(seconds * SCALE)
        connection, _ = self._listener.accept()
        connection.settimeout(seconds * SCALE)
        return connection

    def nobody_waits(self):
        """True when no connection was made that accept() has not returned."""
        self._listener.settimeout(0)
        try:
            self._listener.accept()[0].close()
            return False
        except BlockingIOError:
            return True


class EchoService(LocalService):
    """Sends back what it reads. It never stops reading, so that nothing stalls for its sake."""

    def __init__(self):
        super().__init__()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            connection, _ = self._listener.accept()
            held = queue.SimpleQueue()
            threading.Thread(target=self._read, args=(connection, held), daemon=True).start()
            threading.Thread(target=self._write, args=(connection, held), daemon=True).start()

    @staticmethod
    def _read(connection, held):
        try:
            while data := connection.recv(1 << 16):
                held.put(data)
        except OSError:
            pass
        held.put(None)

    @staticmethod
    def _write(connection, held):
        with connection:
            try:
                while (data := held.get()) is not None:
                    connection.sendall(data)
            except OSError:
                pass
