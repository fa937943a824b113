"""Result codes of the library as Python exceptions."""

from __future__ import annotations

from typing import Dict, Optional, Type

from . import _library


class PellixError(Exception):
    """A call of the library returned a non-zero result code.

    ``code`` is the library's code, ``text`` its own words for it (``PXST_ResultText``).
    """

    def __init__(self, code: int, text: Optional[str] = None, *, address: Optional[int] = None):
        self.code = code
        self.text = text if text is not None else _library.result_text(code)
        #: For a verification that failed (code 17): the first address that differs.
        self.address = address
        message = f"pellix: {self.text} (result {code})"
        if address is not None:
            message += f" at 0x{address:08X}"
        super().__init__(message)


class UnknownHandle(PellixError):
    """Code 3: the handle is not known (never opened, or closed)."""


class BufferTooSmall(PellixError):
    """Code 5: a bypass packet is larger than the buffer."""


class PacketTooLarge(PellixError, ValueError):
    """Code 6: a bypass packet or flow id list too large (or negative) to send."""


class ConnectionFailed(PellixError, ConnectionError):
    """Code 11: no connection could be made."""


class NotConnected(PellixError, ConnectionError):
    """Code 12: the connection has no socket."""


class ReplyTimeout(PellixError, TimeoutError):
    """Code 13: no reply within the time-out, or a reply that does not fit."""


class LodFormatError(PellixError, ValueError):
    """Code 15: the LOD file holds a data line outside a packet."""


class FileError(PellixError, OSError):
    """Code 16: a file cannot be opened."""


class VerifyMismatch(PellixError):
    """Code 17: target memory differs from the LOD file (``address`` says where first)."""


class EventsNotEnabled(PellixError):
    """Code 20: events are not enabled on this connection."""


class Cancelled(PellixError):
    """Code 21: the progress callback asked the transfer to stop."""


class NotSupported(PellixError):
    """Code 30: the operation is not supported."""


_BY_CODE: Dict[int, Type[PellixError]] = {
    3: UnknownHandle,
    5: BufferTooSmall,
    6: PacketTooLarge,
    11: ConnectionFailed,
    12: NotConnected,
    13: ReplyTimeout,
    15: LodFormatError,
    16: FileError,
    17: VerifyMismatch,
    20: EventsNotEnabled,
    21: Cancelled,
    30: NotSupported,
}


def error_for(code: int, *, address: Optional[int] = None) -> PellixError:
    """The exception for a non-zero result code."""
    return _BY_CODE.get(code, PellixError)(code, address=address)


def check(code: int) -> None:
    """Raises the exception for ``code`` unless it is 0."""
    if code != 0:
        raise error_for(code)
