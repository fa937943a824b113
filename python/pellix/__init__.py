"""pellix: read and write a target chip's memory, take its events, talk on bypass flows,
control the pellix host server and load, verify and dump LOD firmware, from Python.

A thin layer over the C interface of ``libpellix_library.so`` (loaded with ctypes from
``PELLIX_LIBRARY``, beside this package, or the system's library path)::

    import pellix
    with pellix.open(57) as target:
        target.write32(0x1000, 0xCAFEF00D)
        assert target.read32(0x1000) == 0xCAFEF00D
"""

from .connection import BASE_PORT, FLOW_MODES, Connection, open
from .errors import (
    BufferTooSmall,
    Cancelled,
    ConnectionFailed,
    EventsNotEnabled,
    FileError,
    LodFormatError,
    NotConnected,
    NotSupported,
    PacketTooLarge,
    PellixError,
    ReplyTimeout,
    UnknownHandle,
    VerifyMismatch,
)
from ._library import path as library_path

__all__ = [
    "BASE_PORT",
    "FLOW_MODES",
    "BufferTooSmall",
    "Cancelled",
    "Connection",
    "ConnectionFailed",
    "EventsNotEnabled",
    "FileError",
    "LodFormatError",
    "NotConnected",
    "NotSupported",
    "PacketTooLarge",
    "PellixError",
    "ReplyTimeout",
    "UnknownHandle",
    "VerifyMismatch",
    "library_path",
    "open",
]
