"""A python-can bus on Qt's virtual CAN bus (the "virtualcan" plugin of Qt Serial Bus).

The bus is a TCP server on the loopback interface (port 35468 unless the channel's URL names
another), started by the first Qt program that opens a channel on it. Every client says which
channels it is on ("connect:can0"), sends its frames as one ASCII line each,
"can0:<decimal id>#<flags>#<hex data>", and receives the frames of other clients on its channels
as "<decimal id>#<flags>#<hex data>". Flags: R remote request, X extended format. A remote
request carries as many zero bytes as its length asks for.

Usage: QtVirtualCanBus("can0", port=35468)
"""

import select
import socket
import time

import can


class QtVirtualCanBus(can.BusABC):
    def __init__(self, channel="can0", host="127.0.0.1", port=35468, connect_timeout=5.0,
                 **kwargs):
        self.channel_info = "Qt virtual CAN %s on %s:%d" % (channel, host, port)
        self._channel = channel
        deadline = time.monotonic() + connect_timeout
        while True:
            try:
                self._socket = socket.create_connection((host, port), timeout=1.0)
                break
            except OSError:
                if time.monotonic() > deadline:
                    raise can.CanInitializationError(
                        "no Qt virtual CAN bus listens on %s:%d" % (host, port))
                time.sleep(0.05)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._socket.setblocking(False)
        self._pending = b""
        self._socket.sendall(("connect:%s\n" % channel).encode())
        super().__init__(channel=channel, **kwargs)

    def send(self, msg, timeout=None):
        flags = ("R" if msg.is_remote_frame else "") + ("X" if msg.is_extended_id else "")
        data = bytes(msg.dlc) if msg.is_remote_frame else bytes(msg.data)
        line = "%s:%d#%s#%s\n" % (self._channel, msg.arbitration_id, flags, data.hex())
        self._socket.setblocking(True)
        try:
            self._socket.sendall(line.encode())
        finally:
            self._socket.setblocking(False)

    def _recv_internal(self, timeout):
        deadline = None if timeout is None else time.monotonic() + timeout
        while b"\n" not in self._pending:
            wait = None if deadline is None else max(0.0, deadline - time.monotonic())
            readable, _, _ = select.select([self._socket], [], [], wait)
            if not readable:
                return None, False
            chunk = self._socket.recv(65536)
            if not chunk:
                raise can.CanOperationError("the Qt virtual CAN bus closed the connection")
            self._pending += chunk
        line, self._pending = self._pending.split(b"\n", 1)
        fields = line.strip().decode().split("#")
        if len(fields) != 3:
            return None, False
        ident, flags, data = fields
        payload = bytes.fromhex(data)
        remote = "R" in flags
        msg = can.Message(timestamp=time.time(), arbitration_id=int(ident),
                          is_extended_id="X" in flags, is_remote_frame=remote,
                          data=None if remote else payload, dlc=len(payload),
                          channel=self._channel)
        return msg, False

    def shutdown(self):
        try:
            self._socket.sendall(("disconnect:%s\n" % self._channel).encode())
        except OSError:
            pass
        self._socket.close()
        super().shutdown()
