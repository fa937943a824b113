"""A connection to the pellix host server, over the library's C interface."""

from __future__ import annotations

import ctypes
import os
import socket
import subprocess
import threading
import time
from pathlib import Path
from typing import Callable, Iterator, List, Optional, Sequence, Tuple, Union

from . import _library
from .errors import PellixError, check, error_for

#: TCP port of the server for serial port N: 7700 + N.
BASE_PORT = 7700
#: Flow control words and their values.
FLOW_MODES = {"none": 0, "hardware": 1, "xonxoff": 2}

ProgressCallback = Callable[[int, int], Optional[bool]]
EventCallback = Callable[[int], None]

# The bypass buffer: the largest stored packet (65535 bytes of payload) and some room.
_BYPASS_BUFFER = 65540


def _flow_value(flow: Union[str, int]) -> int:
    if isinstance(flow, str):
        try:
            return FLOW_MODES[flow]
        except KeyError:
            raise ValueError(f"flow must be one of {sorted(FLOW_MODES)} or a number") from None
    return int(flow) & 0xFFFFFFFF


def _seconds_to_ms(timeout: Optional[float]) -> int:
    """A time-out in seconds as the library's milliseconds (None: the longest it takes)."""
    if timeout is None:
        return 0xFFFFFFFF
    if timeout < 0:
        raise ValueError("timeout must not be negative")
    return min(0xFFFFFFFF, int(round(timeout * 1000)))


def _listening(port: int) -> bool:
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=0.5):
            return True
    except OSError:
        return False


def _start_server(port: int, baud: Optional[int], flow: Union[str, int]) -> None:
    """Starts the pellix server found beside the library for serial port `port`, detached,
    and waits up to 10 s for it to listen. Does nothing when no server program is there (the
    library then tries its own way)."""
    program = Path(_library.path()).resolve().parent / "pellix"
    if not os.access(program, os.X_OK):
        return
    words = {v: k for k, v in FLOW_MODES.items()}
    arguments = [str(program), f"COM{port}", str(baud if baud is not None else 921600),
                 words.get(_flow_value(flow), "none")]
    subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                     stderr=subprocess.DEVNULL, start_new_session=True)
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline and not _listening(BASE_PORT + port):
        time.sleep(0.05)


def open(port: Optional[int] = None, *, host: Optional[str] = None,
         tcp_port: Optional[int] = None, baud: Optional[int] = None,
         flow: Union[str, int] = "none", start: bool = True) -> "Connection":
    """Opens a connection to the server and returns it.

    With a serial ``port`` number and ``start`` true: connects to 127.0.0.1, TCP port 7700 +
    ``port``, starting ``pellix COM<port> <baud> <flow>`` (from the library's folder) when no
    server answers; this may block up to about 13 s. Otherwise (``start`` false, or ``host`` /
    ``tcp_port`` given) connects to ``host`` (default 127.0.0.1) and ``tcp_port`` (default 7700
    + ``port``) without starting anything; blocks up to the 3 s connect time-out. Raises
    ``ConnectionFailed`` when no connection can be made.
    """
    lib = _library.lib()
    handle = ctypes.c_int(-1)
    if start and host is None and tcp_port is None:
        if port is None:
            raise ValueError("a serial port number is needed to start the server")
        if not _listening(BASE_PORT + port):
            _start_server(port, baud, flow)
        check(lib.PXST_Open(port, -1 if baud is None else baud, _flow_value(flow),
                            ctypes.byref(handle)))
    else:
        if tcp_port is None:
            if port is None:
                raise ValueError("give a serial port number or a tcp_port")
            tcp_port = BASE_PORT + port
        address = (host or "127.0.0.1").encode()
        check(lib.PXST_OpenSocket(address, tcp_port, ctypes.byref(handle)))
    return Connection(handle.value)


class Connection:
    """One open handle of the library. Use it as a context manager, or call ``close()``.

    Calls may come from any thread. Requests wait for their reply for at most 5 s (block
    reads: 5 s without progress) and raise ``ReplyTimeout`` after that.
    """

    def __init__(self, handle: int):
        self._lib = _library.lib()
        self.handle = handle
        self._closed = False
        self._event_thread: Optional[threading.Thread] = None
        self._stop_events = threading.Event()
        #: Exceptions raised by the event callback, in order (the callback thread goes on).
        self.callback_errors: List[BaseException] = []

    # ---- life ---------------------------------------------------------------------------

    def close(self) -> None:
        """Stops the event callback thread, if any, and closes the handle. Idempotent."""
        if self._closed:
            return
        self._stop_event_thread()
        self._closed = True
        check(self._lib.PXST_Close(self.handle))

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._closed else "open"
        return f"<pellix.Connection handle={self.handle} {state}>"

    @property
    def connected(self) -> bool:
        """Whether the handle holds a socket (does not block)."""
        return not self._closed and self._lib.PXST_HandleStatus(self.handle) == 1

    # ---- memory ---------------------------------------------------------------------------

    def read8(self, address: int) -> int:
        """Reads one byte. Blocks until the reply (at most 5 s)."""
        value = ctypes.c_ubyte()
        check(self._lib.PXST_Read8(self.handle, address, ctypes.byref(value)))
        return value.value

    def read16(self, address: int) -> int:
        """Reads 16 bits. Blocks until the reply (at most 5 s)."""
        value = ctypes.c_ushort()
        check(self._lib.PXST_Read16(self.handle, address, ctypes.byref(value)))
        return value.value

    def read32(self, address: int) -> int:
        """Reads 32 bits. Blocks until the reply (at most 5 s)."""
        value = ctypes.c_uint()
        check(self._lib.PXST_Read32(self.handle, address, ctypes.byref(value)))
        return value.value

    def read_internal(self, address: int) -> int:
        """Reads one byte of the internal space. Blocks until the reply (at most 5 s)."""
        value = ctypes.c_ubyte()
        check(self._lib.PXST_ReadInternal(self.handle, address, ctypes.byref(value)))
        return value.value

    def read(self, address: int, size: int) -> bytes:
        """Reads ``size`` bytes. Blocks until all have arrived (5 s without progress fails)."""
        if size < 0:
            raise ValueError("size must not be negative")
        buffer = ctypes.create_string_buffer(size)
        check(self._lib.PXST_ReadBlock(self.handle, address, buffer, size))
        return buffer.raw

    def read_masked(self, address: int, mask: bytes) -> bytes:
        """Reads the bytes whose mask byte is 0xFF (the others come back as 0). Blocks for
        each read in turn."""
        size = len(mask)
        buffer = (ctypes.c_ubyte * max(size, 1))()
        mask_array = (ctypes.c_ubyte * max(size, 1)).from_buffer_copy(bytes(mask) or b"\0")
        check(self._lib.PXST_ReadBlockMasked(self.handle, address, buffer, size, mask_array))
        return bytes(buffer)[:size]

    def write8(self, address: int, value: int) -> None:
        """Writes one byte; returns once acknowledged (at most 5 s)."""
        check(self._lib.PXST_Write8(self.handle, address, value & 0xFF))

    def write16(self, address: int, value: int) -> None:
        """Writes 16 bits; returns once acknowledged (at most 5 s)."""
        check(self._lib.PXST_Write16(self.handle, address, value & 0xFFFF))

    def write32(self, address: int, value: int) -> None:
        """Writes 32 bits; returns once acknowledged (at most 5 s)."""
        check(self._lib.PXST_Write32(self.handle, address, value & 0xFFFFFFFF))

    def write_internal(self, address: int, value: int) -> None:
        """Writes one byte of the internal space; returns once acknowledged (at most 5 s)."""
        check(self._lib.PXST_WriteInternal(self.handle, address, value & 0xFF))

    def write(self, address: int, data: bytes) -> None:
        """Writes ``data`` in requests of at most 32 KiB, each acknowledged within 5 s."""
        size = len(data)
        words = (ctypes.c_uint * ((size + 3) // 4 or 1))()
        ctypes.memmove(words, bytes(data), size)
        check(self._lib.PXST_WriteBlock(self.handle, address, words, size))

    # ---- events ---------------------------------------------------------------------------

    def enable_events(self, on: bool = True,
                      callback: Optional[EventCallback] = None) -> None:
        """Asks the server to send events (or to stop). With ``callback``, a Python thread
        of this connection takes every event and calls ``callback(event)`` with it (never on
        the library's own thread); an exception it raises is kept in ``callback_errors`` and
        the thread goes on. Returns once the request is written."""
        self._stop_event_thread()
        check(self._lib.PXST_EnableEvents(self.handle, 1 if on else 0))
        if on and callback is not None:
            self._stop_events.clear()
            self._event_thread = threading.Thread(
                target=self._deliver_events, args=(callback,), name="pellix-events",
                daemon=True)
            self._event_thread.start()

    def pop_event(self) -> Optional[int]:
        """The oldest queued event, or None when the queue is empty. Does not block."""
        event = ctypes.c_uint()
        code = self._lib.PXST_PopEvent(self.handle, ctypes.byref(event))
        if code == 19:
            return None
        check(code)
        return event.value

    def wait_event(self, timeout: Optional[float] = None) -> Optional[int]:
        """The oldest event, waiting up to ``timeout`` seconds for one when none is queued
        (None: the longest wait the library takes, about 49 days); None if none came."""
        event = ctypes.c_uint()
        code = self._lib.PXST_WaitEvent(self.handle, ctypes.byref(event),
                                        _seconds_to_ms(timeout))
        if code == 19:
            return None
        check(code)
        return event.value

    def events(self, timeout: Optional[float] = None) -> Iterator[int]:
        """Yields events as they come; ends when none comes for ``timeout`` seconds (None:
        never ends by itself)."""
        while True:
            event = self.wait_event(timeout)
            if event is None:
                if timeout is None:
                    continue
                return
            yield event

    def flush_events(self) -> None:
        """Empties the event queue."""
        check(self._lib.PXST_FlushEvents(self.handle))

    def _deliver_events(self, callback: EventCallback) -> None:
        while not self._stop_events.is_set():
            try:
                event = self.wait_event(0.05)
            except PellixError:
                return
            if event is None:
                continue
            try:
                callback(event)
            except BaseException as error:  # the thread goes on; the caller looks later
                self.callback_errors.append(error)

    def _stop_event_thread(self) -> None:
        thread, self._event_thread = self._event_thread, None
        if thread is not None:
            self._stop_events.set()
            thread.join()

    # ---- bypass ---------------------------------------------------------------------------

    def enable_bypass(self, flow_ids: Sequence[int]) -> None:
        """Subscribes to the bypass flows ``flow_ids`` (replacing earlier ones) and turns
        reception on. Returns once the request is written."""
        ids = bytes(flow_ids)
        array = (ctypes.c_ubyte * max(len(ids), 1)).from_buffer_copy(ids or b"\0")
        check(self._lib.PXST_BypassEnable(self.handle, array, len(ids)))

    def send_bypass(self, flow_id: int, data: bytes) -> None:
        """Sends ``data`` (at most 65530 bytes) to the target on flow ``flow_id``. Returns once
        written."""
        data = bytes(data)
        array = (ctypes.c_ubyte * max(len(data), 1)).from_buffer_copy(data or b"\0")
        check(self._lib.PXST_BypassSendPacket(self.handle, flow_id & 0xFF, array, len(data)))

    def wait_bypass(self, timeout: Optional[float] = None) -> Optional[Tuple[int, bytes]]:
        """The oldest bypass packet as ``(flow_id, data)``, waiting up to ``timeout`` seconds
        for one; None if none came. ``data`` is what the target sent on the flow (the packet
        without its 4-byte header and its trailing checksum byte)."""
        buffer = (ctypes.c_ubyte * _BYPASS_BUFFER)()
        flow = ctypes.c_ubyte()
        length = ctypes.c_int()
        code = self._lib.PXST_BypassWaitPacket(self.handle, ctypes.byref(flow), buffer,
                                               _BYPASS_BUFFER, ctypes.byref(length),
                                               _seconds_to_ms(timeout))
        if code == 8:
            return None
        check(code)
        packet = bytes(buffer[: length.value])
        return flow.value, packet[4:-1]

    def bypass_packets(self, timeout: Optional[float] = None) -> Iterator[Tuple[int, bytes]]:
        """Yields ``(flow_id, data)`` as packets come; ends when none comes for ``timeout``
        seconds (None: never ends by itself)."""
        while True:
            packet = self.wait_bypass(timeout)
            if packet is None:
                if timeout is None:
                    continue
                return
            yield packet

    def flush_bypass(self) -> None:
        """Empties the bypass queue."""
        check(self._lib.PXST_BypassFlushPackets(self.handle))

    # ---- server control -------------------------------------------------------------------

    def ping(self) -> None:
        """Pings the server; raises ``ReplyTimeout`` when it does not answer within 5 s."""
        check(self._lib.PXST_PingPellix(self.handle))

    def status(self) -> bool:
        """Whether the server says its link to the target is up. Blocks up to 5 s."""
        value = ctypes.c_uint()
        check(self._lib.PXST_PellixStatus(self.handle, ctypes.byref(value)))
        return value.value != 0

    def kill(self) -> None:
        """Tells the server to stop. Returns once written."""
        check(self._lib.PXST_KillPellix(self.handle))

    def clean(self) -> None:
        """Tells the server to clean its state. Returns once written."""
        check(self._lib.PXST_PellixClean(self.handle))

    def flush(self) -> None:
        """Tells the server to flush its buffers. Returns once written."""
        check(self._lib.PXST_PellixFlushFifos(self.handle))

    def reconnect(self) -> None:
        """Has the server reconnect to the target; blocks until it says it has (at most
        10 s)."""
        handle = ctypes.c_int(self.handle)
        check(self._lib.PXST_ForcePellixReconnection(ctypes.byref(handle)))

    def send_break(self) -> None:
        """Has the server send a break on its serial link."""
        check(self._lib.PXST_ComBreak(self.handle))

    def set_baud(self, rate: int) -> None:
        """Sets the baud rate of the server's link. Returns once written."""
        check(self._lib.PXST_ChangeBaudRate(self.handle, int(rate)))

    def set_flow(self, mode: Union[str, int]) -> None:
        """Sets the flow control of the server's link: "none", "hardware", "xonxoff" or a
        number (carried unchanged). Returns once written."""
        check(self._lib.PXST_ChangeFlowMode(self.handle, _flow_value(mode)))

    def set_usb_ids(self, first: int, second: int) -> None:
        """Chooses the USB identifiers the server looks for. Returns once written."""
        check(self._lib.PXST_SpecifyUSBIdPolicy(self.handle, int(first), int(second)))

    def auto_baud(self) -> None:
        """Starts the server's auto-bauding. Returns once written."""
        check(self._lib.PXST_LaunchTargetAutoBauding(self.handle))

    # ---- firmware -------------------------------------------------------------------------

    def load(self, path: Union[str, os.PathLike], verify: bool = False,
             progress: Optional[ProgressCallback] = None) -> None:
        """Writes every packet of the LOD file at ``path`` to the target, then (``verify``)
        reads it back. Blocks for the whole transfer; ``progress(done, total)`` (bytes) is
        called on this thread as it goes and may return True to stop (``Cancelled``). Raises ``VerifyMismatch`` (with ``address``) when
        the target differs."""
        fail = ctypes.c_uint(0)
        name = os.fsencode(path)
        if progress is None:
            code = self._lib.PXST_LoadLod(self.handle, name, 1 if verify else 0,
                                          ctypes.byref(fail))
        else:
            code = self._lib.PXST_LoadLodProgress(self.handle, name, 1 if verify else 0,
                                                  ctypes.byref(fail), _progress(progress),
                                                  None)
        if code == 17:
            raise error_for(code, address=fail.value)
        check(code)

    def verify(self, path: Union[str, os.PathLike],
               progress: Optional[ProgressCallback] = None) -> Optional[int]:
        """Compares the LOD file with the target: None when they match, else the first
        address that differs. Blocks for the whole transfer."""
        fail = ctypes.c_uint(0)
        name = os.fsencode(path)
        if progress is None:
            code = self._lib.PXST_VerifyLod(self.handle, name, ctypes.byref(fail))
        else:
            code = self._lib.PXST_VerifyLodProgress(self.handle, name, ctypes.byref(fail),
                                                    _progress(progress), None)
        if code == 17:
            return fail.value
        check(code)
        return None

    def dump(self, path: Union[str, os.PathLike], address: int, words: int,
             binary: bool = False, progress: Optional[ProgressCallback] = None) -> None:
        """Reads ``words`` 32-bit words from ``address`` into a new file at ``path``: LOD
        text, or raw words with ``binary``. Blocks for the whole transfer."""
        name = os.fsencode(path)
        if progress is None:
            code = self._lib.PXST_DumpLod(self.handle, name, address, words, 1 if binary else 0)
        else:
            code = self._lib.PXST_DumpLodProgress(self.handle, name, address, words,
                                                  1 if binary else 0, _progress(progress), None)
        check(code)


def _progress(callback: ProgressCallback) -> "_library.PROGRESS":
    """A C progress callback that calls ``callback(done, total)``. The library calls it on
    the thread that runs the transfer. A true result stops the transfer after the chunk just
    moved (the call then raises ``Cancelled``); an exception in it is printed by ctypes and
    the transfer goes on."""
    return _library.PROGRESS(
        lambda done, total, _user: 1 if callback(int(done), int(total)) else 0)
