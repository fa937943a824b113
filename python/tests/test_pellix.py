"""The Python package against the real pellix simulator, started the way users start it
(pellix.open with a serial port number starts the server found beside the library).

Run with PELLIX_LIBRARY pointing at a non-sanitizer build of libpellix_library.so, whose
folder also holds the pellix program."""

import socket
import threading

import pytest

import pellix

# Serial ports of these tests (TCP 7850..); the C interface tests use 100..149.
PORT = 150
EVENT_REGISTER = 0xFFFFFF00


@pytest.fixture(scope="module")
def target():
    with pellix.open(PORT) as connection:
        yield connection
        connection.kill()


def raises(kind, code, call, *args, **kwargs):
    """Calls ``call`` expecting the exception ``kind`` with the result code ``code``."""
    error = pytest.raises(kind, call, *args, **kwargs).value
    assert error.code == code
    return error


def test_memory_at_every_width_blocks_and_masks(target):
    target.write8(0x1001, 0xAB)
    target.write16(0x1002, 0xBEEF)
    target.write32(0x1004, 0xCAFEF00D)
    target.write_internal(0x10, 0x5A)
    assert (target.read8(0x1001), target.read16(0x1002), target.read32(0x1004),
            target.read_internal(0x10)) == (0xAB, 0xBEEF, 0xCAFEF00D, 0x5A)
    data = bytes(range(256)) * 400  # 100 KiB: several 32 KiB requests
    target.write(0x20001, data)
    assert target.read(0x20001, len(data)) == data
    assert target.read_masked(0x20001, b"\xff\x00\xff\xff") == b"\x00\x00\x02\x03"
    assert target.read(0x20001, 0) == b""


def test_events_queue_iterator_and_callback_thread(target):
    raises(pellix.EventsNotEnabled, 20, pellix.open(PORT, start=False).pop_event)
    target.enable_events()
    target.flush_events()
    assert target.pop_event() is None
    for value in (7, 1, 2, 3):
        target.write32(EVENT_REGISTER, value)
    assert target.wait_event(5) == 7
    assert list(target.events(timeout=0.5)) == [1, 2, 3]

    # The callback runs on a Python thread of the connection; one that raises is recorded
    # and the thread goes on with the next event.
    seen = []
    done = threading.Event()

    def callback(event: int) -> None:
        seen.append((event, threading.current_thread().name))
        if event == 40:
            raise RuntimeError("callback failed")
        done.set()

    target.enable_events(callback=callback)
    target.write32(EVENT_REGISTER, 40)
    target.write32(EVENT_REGISTER, 41)
    assert done.wait(5)
    assert seen == [(40, "pellix-events"), (41, "pellix-events")]
    assert [str(e) for e in target.callback_errors] == ["callback failed"]
    target.enable_events(False)


def test_bypass_round_trip_and_iterator(target):
    target.enable_bypass([0x21, 0x22])
    target.flush_bypass()
    target.send_bypass(0x21, b"\x11\x13\xad\x5c hello")
    assert target.wait_bypass(5) == (0x21, b"\x11\x13\xad\x5c hello")
    target.send_bypass(0x22, b"")
    target.send_bypass(0x21, b"x")
    assert list(target.bypass_packets(timeout=0.5)) == [(0x22, b""), (0x21, b"x")]
    assert isinstance(raises(pellix.PacketTooLarge, 6, target.send_bypass, 0x21, bytes(65531)),
                      ValueError)


def test_server_control(target):
    assert target.status() is True
    for call, *args in [(target.ping,), (target.clean,), (target.flush,), (target.auto_baud,),
                        (target.send_break,), (target.reconnect,), (target.set_baud, 115200),
                        (target.set_flow, "xonxoff"), (target.set_flow, 0x12345678),
                        (target.set_usb_ids, 0x1234, 0x5678)]:
        call(*args)
    assert target.connected
    pytest.raises(ValueError, target.set_flow, "sometimes")


def test_firmware_load_verify_dump(target, tmp_path):
    lod = tmp_path / "image.lod"
    lod.write_text("@00300000\n" + "".join(f"{0x11110000 + i:08x}\n" for i in range(1000)))
    progress = []
    target.load(lod, verify=True,
                progress=lambda *call: progress.append((*call, threading.current_thread())))
    assert progress[-1] == (8000, 8000, threading.main_thread())  # loaded and read back
    assert target.verify(lod) is None
    target.write32(0x00300008, 0)
    assert target.verify(lod, progress=lambda done, total: None) == 0x00300008

    # The second packet overwrites a word of the first: the verification after the load
    # finds it changed.
    clash = tmp_path / "clash.lod"
    clash.write_text("@00300000\n00000001\n00000002\n@00300004\n0bad0bad\n")
    assert raises(pellix.VerifyMismatch, 17, target.load, clash, verify=True).address == 0x00300004

    binary = tmp_path / "dump.bin"
    target.dump(binary, 0x00300000, 2, binary=True)
    assert binary.read_bytes() == bytes.fromhex("01000000 ad0bad0b")
    text = tmp_path / "dump.lod"
    target.dump(text, 0x00300000, 2, progress=lambda done, total: None)
    assert text.read_text().lower().split() == ["@00300000", "00000001", "0bad0bad"]
    raises(pellix.FileError, 16, target.load, tmp_path / "missing.lod")
    # A true result stops the transfer.
    raises(pellix.Cancelled, 21, target.load, lod, verify=True, progress=lambda done, total: True)


def test_error_mapping():
    # A server that accepts and never answers: requests end by their time-out (its length:
    # the connection tests). Once it is gone, nothing answers on its port.
    with socket.create_server(("127.0.0.1", 0)) as silent:
        port = silent.getsockname()[1]
        connection = pellix.open(host="127.0.0.1", tcp_port=port)
        assert isinstance(raises(pellix.ReplyTimeout, 13, connection.ping), TimeoutError)
    error = raises(pellix.ConnectionFailed, 11, pellix.open, host="127.0.0.1", tcp_port=port)
    assert isinstance(error, ConnectionError) and "no connection" in error.text
    handle = connection.handle
    connection.close()
    connection.close()  # closing twice is harmless
    raises(pellix.UnknownHandle, 3, pellix.Connection(handle).read32, 0)
