"""Loads libpellix_library.so and declares the C functions the package calls."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from pathlib import Path
from typing import Optional

LIBRARY_NAME = "libpellix_library.so"

c_int_p = ctypes.POINTER(ctypes.c_int)
c_uint_p = ctypes.POINTER(ctypes.c_uint)
c_ubyte_p = ctypes.POINTER(ctypes.c_ubyte)

#: void (*)(unsigned long long done, unsigned long long total, void* userData)
PROGRESS = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_ulonglong, ctypes.c_ulonglong, ctypes.c_void_p)

# name: (result type, argument types). Every PXST_ call returns an unsigned result code
# unless said otherwise.
_PROTOTYPES = {
    "PXST_ResultText": (ctypes.c_char_p, [ctypes.c_uint]),
    "PXST_Open": (ctypes.c_uint, [ctypes.c_int, ctypes.c_int, ctypes.c_int, c_int_p]),
    "PXST_OpenSocket": (ctypes.c_uint, [ctypes.c_char_p, ctypes.c_int, c_int_p]),
    "PXST_Close": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_HandleStatus": (ctypes.c_int, [ctypes.c_int]),
    "PXST_LaunchTargetAutoBauding": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_KillPellix": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_ChangeFlowMode": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint]),
    "PXST_ChangeBaudRate": (ctypes.c_uint, [ctypes.c_int, ctypes.c_int]),
    "PXST_ComBreak": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_PellixStatus": (ctypes.c_uint, [ctypes.c_int, c_uint_p]),
    "PXST_SpecifyUSBIdPolicy": (ctypes.c_uint, [ctypes.c_int, ctypes.c_int, ctypes.c_int]),
    "PXST_PellixClean": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_PellixFlushFifos": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_ForcePellixReconnection": (ctypes.c_uint, [c_int_p]),
    "PXST_PingPellix": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_EnableEvents": (ctypes.c_uint, [ctypes.c_int, ctypes.c_int]),
    "PXST_PopEvent": (ctypes.c_uint, [ctypes.c_int, c_uint_p]),
    "PXST_WaitEvent": (ctypes.c_uint, [ctypes.c_int, c_uint_p, ctypes.c_uint]),
    "PXST_FlushEvents": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_BypassEnable": (ctypes.c_uint, [ctypes.c_int, c_ubyte_p, ctypes.c_int]),
    "PXST_BypassWaitPacket": (
        ctypes.c_uint,
        [ctypes.c_int, c_ubyte_p, c_ubyte_p, ctypes.c_int, c_int_p, ctypes.c_uint],
    ),
    "PXST_BypassSendPacket": (ctypes.c_uint, [ctypes.c_int, ctypes.c_int, c_ubyte_p, ctypes.c_int]),
    "PXST_BypassFlushPackets": (ctypes.c_uint, [ctypes.c_int]),
    "PXST_ReadInternal": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, c_ubyte_p]),
    "PXST_Read8": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, c_ubyte_p]),
    "PXST_Read16": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.POINTER(ctypes.c_ushort)]),
    "PXST_Read32": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, c_uint_p]),
    "PXST_ReadBlock": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.c_void_p, ctypes.c_uint]),
    "PXST_ReadBlockMasked": (
        ctypes.c_uint,
        [ctypes.c_int, ctypes.c_uint, c_ubyte_p, ctypes.c_uint, c_ubyte_p],
    ),
    "PXST_WriteInternal": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.c_uint]),
    "PXST_Write8": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.c_uint]),
    "PXST_Write16": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.c_uint]),
    "PXST_Write32": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, ctypes.c_uint]),
    "PXST_WriteBlock": (ctypes.c_uint, [ctypes.c_int, ctypes.c_uint, c_uint_p, ctypes.c_uint]),
    "PXST_LoadLod": (ctypes.c_uint, [ctypes.c_int, ctypes.c_char_p, ctypes.c_int, c_uint_p]),
    "PXST_VerifyLod": (ctypes.c_uint, [ctypes.c_int, ctypes.c_char_p, c_uint_p]),
    "PXST_DumpLod": (
        ctypes.c_uint,
        [ctypes.c_int, ctypes.c_char_p, ctypes.c_uint, ctypes.c_uint, ctypes.c_int],
    ),
    "PXST_LoadLodProgress": (
        ctypes.c_uint,
        [ctypes.c_int, ctypes.c_char_p, ctypes.c_int, c_uint_p, PROGRESS, ctypes.c_void_p],
    ),
    "PXST_VerifyLodProgress": (
        ctypes.c_uint,
        [ctypes.c_int, ctypes.c_char_p, c_uint_p, PROGRESS, ctypes.c_void_p],
    ),
    "PXST_DumpLodProgress": (
        ctypes.c_uint,
        [ctypes.c_int, ctypes.c_char_p, ctypes.c_uint, ctypes.c_uint, ctypes.c_int, PROGRESS,
         ctypes.c_void_p],
    ),
}


def candidates() -> list:
    """Where the library is looked for, in order."""
    found = []
    forced = os.environ.get("PELLIX_LIBRARY")
    if forced:
        return [forced]
    beside = Path(__file__).resolve().parent / LIBRARY_NAME
    if beside.exists():
        found.append(str(beside))
    system = ctypes.util.find_library("pellix_library")
    found.append(system or LIBRARY_NAME)
    return found


def _load() -> ctypes.CDLL:
    errors = []
    for path in candidates():
        try:
            library = ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"{path}: {error}")
            continue
        for name, (restype, argtypes) in _PROTOTYPES.items():
            function = getattr(library, name)
            function.restype = restype
            function.argtypes = argtypes
        return library
    raise ImportError(
        "pellix: cannot load libpellix_library.so (set PELLIX_LIBRARY to its path): "
        + "; ".join(errors)
    )


_lib: Optional[ctypes.CDLL] = None


def lib() -> ctypes.CDLL:
    """The loaded library (loaded on first use)."""
    global _lib
    if _lib is None:
        _lib = _load()
    return _lib


def path() -> str:
    """The file the library was loaded from."""
    return str(lib()._name)


def result_text(code: int) -> str:
    """The library's text for a result code."""
    text = lib().PXST_ResultText(code)
    return text.decode("utf-8", "replace") if text else "unknown result code"
