#ifndef PELLIX_PXLLIBRARYAPI_H
#define PELLIX_PXLLIBRARYAPI_H

/* The C interface of the pellix library.
 *
 * A caller opens a connection to the host server "pellix" with one of the open functions and
 * gets an integer handle; every other call takes that handle and returns an unsigned result
 * code (0 success, the PXST_RESULT_ constants below; PXST_ResultText gives a short text for
 * each). PXST_Open starts the server from the application's folder when none answers.
 *
 * Handles are 1, 2, 3, ... in the order connections are created in the process (a failed
 * open uses up a number as well) and are never reused; -1 in a handle out-parameter means
 * no connection. The caller owns a handle from a successful open until PXST_Close.
 *
 * Every function that takes a handle returns PXST_RESULT_UNKNOWN_HANDLE (3) for a handle
 * that was never given out or has been closed, and, except PXST_Close and
 * PXST_HandleStatus, PXST_RESULT_NOT_CONNECTED (12) for a known handle whose connection has
 * no socket, in both cases without doing anything else. The interface checks no pointer for
 * null: out-parameters must point at writable memory unless a function says otherwise.
 *
 * Time-outs: a memory read or write, a status query and a ping wait at most 5000 ms for
 * their reply (a block read: 5000 ms without progress); a forced reconnection waits at most
 * 10000 ms. Commands return as soon as their request has been written.
 *
 * Thread safety
 * -------------
 * - Any function may be called from any thread, and calls on different handles run
 *   independently. Calls on one handle from several threads are allowed: requests of one
 *   connection (reads, writes, queries, commands, enabling events, setting bypass flow ids
 *   and sending bypass packets) run one after another; the queue calls (PopEvent, WaitEvent,
 *   FlushEvents, BypassGet..., BypassWaitPacket, BypassFlushPackets) may run while a request
 *   of the same handle waits for its reply.
 * - Never close a handle while another thread is still inside a call on it: PXST_Close frees
 *   the connection.
 * - PXST_SetDefaultBaud changes a process-wide value read by PXST_Open: set it before
 *   opening from several threads.
 * - Callbacks (PXST_EventSetCallback, PXST_BypassSetCallback, PXST_BypassSetDelayCallback)
 *   run on the library's network thread, which serves every connection of the process: keep
 *   them short. The event and bypass callbacks run while the connection's data lock is held.
 *   They must not call any PXST_ function on the same handle (neither a queue call nor a
 *   request), nor open or close a connection. The delayed bypass callback runs with no lock
 *   held: it may use the queue calls (PXST_PopEvent, PXST_FlushEvents,
 *   PXST_BypassGetPacket, PXST_BypassGetData, PXST_BypassFlushPackets), but must not issue
 *   requests (memory access, queries, commands, enabling events or flows,
 *   PXST_BypassSendPacket, the LOD calls), set callbacks, nor open or close a connection:
 *   they would wait for the very thread that runs the callback.
 * - Progress callbacks of the LOD calls run on the caller's thread, between two block calls;
 *   they may do anything but close the handle in use.
 */

#include "pellix/pellix_export.h"
#include "pellix/protocol/PXLTypes.h"

/* Result codes: PXLResult (pellix/protocol/PXLTypes.h), the same in every layer. */

/* Progress of a LOD transfer: `done` of `total` bytes moved so far. Called on the caller's
 * thread. Returns 0 to go on; any other value asks the transfer to stop: it ends after the
 * chunk just moved and the call returns PXST_RESULT_CANCELLED (21). */
typedef int (*PXST_ProgressCallback)(unsigned long long done, unsigned long long total,
                                     void* userData);

#ifdef __cplusplus
extern "C" {
#endif

/* ---- result codes ------------------------------------------------------------------------- */

/* A short static English text for a result code; "unknown result code" for a code the library
 * does not produce. Never null; does not block. */
PELLIX_EXPORT const char* PXST_ResultText(unsigned int code);

/* ---- opening and closing ------------------------------------------------------------------ */

/* Connects to the server of serial port `port` on 127.0.0.1:(7700 + port) mod 65536. When no
 * server answers, starts "pellix" from the application's folder (the current folder in a
 * program that created no QCoreApplication) with the arguments "COM<port>", the baud rate
 * (`baud`, or the default of PXST_SetDefaultBaud for -1) and the flow word ("hardware" for
 * flow mode 1, "xonxoff" for 2, "none" otherwise), waits up to 10 s for it to listen and
 * connects again. Pings the server once connected (result ignored). The started server keeps
 * running after the connection and the process end.
 * Results: 0 with the handle in *handle; 11 (no connection) with -1 in *handle.
 * Blocks: the connect (up to 3 s), when it fails the server start and up to about 12 s of
 * waiting plus a second connect, then the ping (up to 5 s). */
PELLIX_EXPORT unsigned int PXST_Open(int port, int baud, int flowMode, int* handle);

/* Connects to a server at `host` (ASCII name or address) and TCP port `port` (low 16 bits).
 * Starts no server and sends no ping. Results: 0 with the handle; 11 with -1.
 * Blocks up to the 3 s connect time-out. */
PELLIX_EXPORT unsigned int PXST_OpenSocket(const char* host, int port, int* handle);

/* As PXST_OpenSocket with the host and port of the last open in this process (or of the
 * environment variables FORCED_PELLIX_HOST and FORCED_PELLIX_PORT when both are set).
 * Results: 0 with the handle; 11 with -1 (also when nothing was opened before).
 * Blocks up to the 3 s connect time-out. */
PELLIX_EXPORT unsigned int PXST_OpenDefault(int* handle);

/* Unsupported open variants: store -1 in *handle and return 11, with no other effect. */
PELLIX_EXPORT unsigned int PXST_RawOpen(int port, int baud, int flowMode, int* handle);
PELLIX_EXPORT unsigned int PXST_USBOpen(int device, int* handle);
PELLIX_EXPORT unsigned int PXST_BirchOpen(int port, int baud, int* handle);
PELLIX_EXPORT unsigned int PXST_USBBypassOpen(int device, unsigned char* flowIds, int count,
                                              int* handle);

/* Closes the connection and frees it; the handle is unknown from then on.
 * Results: 0; 3. Blocks until a dispatch running for this connection on the network thread
 * has finished (normally at once). */
PELLIX_EXPORT unsigned int PXST_Close(int handle);

/* 1 if the handle is known and connected, 0 otherwise. Not a result code. Does not block. */
PELLIX_EXPORT int PXST_HandleStatus(int handle);

/* Sets the baud rate that PXST_Open passes to a server it starts when its baud argument is
 * -1 (initially 921600). Does not affect a running server. Always 0; does not block. */
PELLIX_EXPORT unsigned int PXST_SetDefaultBaud(int baud);

/* ---- server control ----------------------------------------------------------------------- */

/* Asks the server to start auto-bauding on its link. Results: 0; 3; 12. Returns once the
 * request is written. */
PELLIX_EXPORT unsigned int PXST_LaunchTargetAutoBauding(int handle);

/* Tells the server to stop. Results: 0; 3; 12. Returns once the request is written. */
PELLIX_EXPORT unsigned int PXST_KillPellix(int handle);

/* Sets the flow control of the server's link. Every 32-bit value is carried unchanged (only
 * 1 and 2 have names). Results: 0; 3; 12. Returns once written. */
PELLIX_EXPORT unsigned int PXST_ChangeFlowMode(int handle, PXLFlowMode flowMode);

/* Sends a break on the server's link. Results: 0; 3; 12. Returns once written. */
PELLIX_EXPORT unsigned int PXST_ComBreak(int handle);

/* Asks the server for its status: *status becomes 1 if the server's status byte is not zero,
 * else 0. Results: 0; 3, 12 (status not written); 13 no reply within 5000 ms (status 0).
 * Blocks until the reply, at most 5000 ms. */
PELLIX_EXPORT unsigned int PXST_PellixStatus(int handle, unsigned int* status);

/* Chooses the USB identifiers the server looks for (low 16 bits of each).
 * Results: 0; 3; 12. Returns once written. */
PELLIX_EXPORT unsigned int PXST_SpecifyUSBIdPolicy(int handle, int firstId, int secondId);

/* Tells the server to clean its state. Results: 0; 3; 12. Returns once written. */
PELLIX_EXPORT unsigned int PXST_PellixClean(int handle);

/* Tells the server to flush its buffers. Results: 0; 3; 12. Returns once written. */
PELLIX_EXPORT unsigned int PXST_PellixFlushFifos(int handle);

/* Makes the server reconnect to the target and waits for it to report completion. The
 * handle is read through the pointer and left unchanged.
 * Results: 0; 3; 12; 13 no completion within 10000 ms. Blocks at most 10000 ms. */
PELLIX_EXPORT unsigned int PXST_ForcePellixReconnection(int* handle);

/* ---- events -------------------------------------------------------------------------------- */

/* Asks the server to send (enable non-zero) or stop sending (0) the target's events. Queued
 * events are kept. Results: 0; 3; 12. Returns once the request is written. */
PELLIX_EXPORT unsigned int PXST_EnableEvents(int handle, int enable);

/* Takes the oldest queued event. Results: 0 with *event; 3; 12; 19 queue empty; 20 events
 * not enabled. Does not block. */
PELLIX_EXPORT unsigned int PXST_PopEvent(int handle, unsigned int* event);

/* As PXST_PopEvent, waiting once up to `timeout` ms for an event when the queue is empty.
 * Results: 0 with *event; 3; 12; 19 nothing arrived in time; 20 events not enabled.
 * Blocks at most `timeout` ms. */
PELLIX_EXPORT unsigned int PXST_WaitEvent(int handle, unsigned int* event, unsigned int timeout);

/* Empties the event queue. Results: 0; 3; 12. Does not block. */
PELLIX_EXPORT unsigned int PXST_FlushEvents(int handle);

/* Sets the function called on the network thread for every queued event (null: none), with
 * `userData`. See "Thread safety" for what it must not call. Results: 0; 3; 12. Waits for a
 * running request of the handle to finish. */
PELLIX_EXPORT unsigned int PXST_EventSetCallback(int handle, void (*callback)(void*),
                                                 void* userData);

/* ---- bypass flows ------------------------------------------------------------------------- */

/* Opens as PXST_Open does, then subscribes to the `count` bypass flow ids at `flowIds`.
 * Results and blocking as PXST_Open; 6 (nothing opened, handle -1) for a count below 0 or
 * above 65531. */
PELLIX_EXPORT unsigned int PXST_BypassOpen(int port, int baud, int flowMode, unsigned char* flowIds,
                                           int count, int* handle);

/* Subscribes to the `count` bypass flow ids at `flowIds` (replacing earlier ones) and turns
 * reception of bypass packets on. Results: 0; 3; 12; 6 for a count below 0 or above 65531
 * (no request can carry it: nothing sent, reception unchanged). Returns once the request is
 * written. */
PELLIX_EXPORT unsigned int PXST_BypassEnable(int handle, unsigned char* flowIds, int count);

/* Takes the oldest bypass packet: its flow id and its data (behind the 4-byte inner header,
 * checksum byte included), up to `size` bytes, with the count in *length.
 * Results: 0; 3; 12; 5 data cut to `size` (packet consumed); 8 no packet (*length 0).
 * Does not block. */
PELLIX_EXPORT unsigned int PXST_BypassGetPacket(int handle, unsigned char* flowId,
                                                unsigned char* buffer, int size, int* length);

/* Takes the oldest bypass packet whole (inner header included).
 * Results: 0; 3; 12; 5 buffer too small (nothing copied, packet kept, *length the size
 * needed); 8 no packet. Does not block. */
PELLIX_EXPORT unsigned int PXST_BypassGetData(int handle, unsigned char* buffer, int size,
                                              int* length);

/* Waits once up to `timeout` ms for a bypass packet when none is queued, then takes the
 * oldest whole (inner header included), up to `size` bytes.
 * Results: 0; 3; 12; 5 cut (consumed); 8 nothing arrived in time. Blocks at most `timeout`
 * ms. */
PELLIX_EXPORT unsigned int PXST_BypassWaitPacket(int handle, unsigned char* flowId,
                                                 unsigned char* buffer, int size, int* length,
                                                 unsigned int timeout);

/* Sends `length` bytes to the target on bypass flow `flowId` (low 8 bits).
 * Results: 0; 3; 12; 6 for a length below 0 or above 65530 bytes (nothing sent). Returns
 * once written. */
PELLIX_EXPORT unsigned int PXST_BypassSendPacket(int handle, int flowId, unsigned char* data,
                                                 int length);

/* Empties the bypass queue. Results: 0; 3; 12. Does not block. */
PELLIX_EXPORT unsigned int PXST_BypassFlushPackets(int handle);

/* Sets the function called on the network thread for every queued bypass packet (null:
 * none). See "Thread safety". Results: 0; 3; 12. Waits for a running request to finish. */
PELLIX_EXPORT unsigned int PXST_BypassSetCallback(int handle, void (*callback)(void*),
                                                  void* userData);

/* Sets the function called once on the network thread `delay` ms after the first bypass
 * packet of a burst. Results: 0; 3; 12. Waits for a running request to finish. */
PELLIX_EXPORT unsigned int PXST_BypassSetDelayCallback(int handle, void (*callback)(void*),
                                                       void* userData, unsigned int delay);

/* ---- target memory ------------------------------------------------------------------------- */
/* Reads and writes block the caller until the server's reply: results 0; 3; 12; 13 no
 * (fitting) reply within 5000 ms. Values travel least significant byte first. */

/* Reads one byte of the target's internal space. */
PELLIX_EXPORT unsigned int PXST_ReadInternal(int handle, unsigned int address,
                                             unsigned char* value);
PELLIX_EXPORT unsigned int PXST_Read8(int handle, unsigned int address, unsigned char* value);
/* 16- and 32-bit reads at unaligned addresses become several smaller reads. */
PELLIX_EXPORT unsigned int PXST_Read16(int handle, unsigned int address, unsigned short* value);
PELLIX_EXPORT unsigned int PXST_Read32(int handle, unsigned int address, unsigned int* value);
/* Reads `size` bytes into `buffer`, cut by alignment into requests of at most 32768 bytes.
 * 0 bytes read nothing. A block read fails only after 5000 ms without progress. A size
 * above 2^31 - 1 gives 13 and reads nothing. */
PELLIX_EXPORT unsigned int PXST_ReadBlock(int handle, unsigned int address, void* buffer,
                                          unsigned int size);
/* Writes one byte (low 8 bits of `value`) to the target's internal space. */
PELLIX_EXPORT unsigned int PXST_WriteInternal(int handle, unsigned int address, unsigned int value);
PELLIX_EXPORT unsigned int PXST_Write8(int handle, unsigned int address, unsigned int value);
PELLIX_EXPORT unsigned int PXST_Write16(int handle, unsigned int address, unsigned int value);
PELLIX_EXPORT unsigned int PXST_Write32(int handle, unsigned int address, unsigned int value);
/* Writes `size` bytes (not words) from `data` in requests of at most 32768 bytes, each
 * acknowledged within 5000 ms. 0 bytes write nothing. A size above 2^31 - 1 gives 13 and
 * writes nothing. */
PELLIX_EXPORT unsigned int PXST_WriteBlock(int handle, unsigned int address, unsigned int* data,
                                           unsigned int size);

/* Reads only the bytes whose mask byte is 0xFF (any other value leaves the byte unread) into
 * `buffer`, which is zeroed first; `mask` has `size` bytes. Each run of selected bytes is read
 * with the widest accesses its alignment allows: 8-bit at odd addresses, 16-bit at 2 mod 4
 * and for short tails, 32-bit, and one block read for the rest of a run at an aligned
 * address (at most 1 GiB each). Unselected bytes are never accessed.
 * Results: 0; 3; 12; the first failing read's code (bytes read before stay in the buffer).
 * Blocks for each read in turn. */
PELLIX_EXPORT unsigned int PXST_ReadBlockMasked(int handle, unsigned int address,
                                                unsigned char* buffer, unsigned int size,
                                                unsigned char* mask);

/* ---- unsupported raw data calls: return 30, look at no argument, no effect ----------------- */

PELLIX_EXPORT unsigned int PXST_RawSendData(int handle, unsigned char* data, int length);
PELLIX_EXPORT unsigned int PXST_RawGetData(int handle, unsigned char* buffer, int size,
                                           int* length);
PELLIX_EXPORT unsigned int PXST_RawFlushData(int handle);

/* ---- LOD firmware files -------------------------------------------------------------------- */
/* The transfers block the caller for the whole transfer, each block call waiting as the
 * memory calls above do. A packet at address 0xF0000000 is neither written nor compared. */

/* Writes every packet of the LOD file to the target, one block write per packet, and when
 * `verify` is non-zero verifies the target against the file afterwards (PXST_VerifyLod,
 * which alone writes *failAddress; null allowed).
 * Results: 0; 3; 12; 15 a data line outside a packet (earlier packets are written); 16 the
 * file cannot be opened; 17 target differs (verification); a block write's or read's code. */
PELLIX_EXPORT unsigned int PXST_LoadLod(int handle, const char* path, int verify,
                                        unsigned int* failAddress);

/* Compares target memory with every packet of the LOD file, one block read per packet.
 * *failAddress (null allowed) is set to 0 first, and on a mismatch to the address of the
 * first differing word. Results: 0; 3; 12; 15; 16; 17 target differs; a block read's code.
 * (Also 16 when memory for a packet's read-back cannot be had.) */
PELLIX_EXPORT unsigned int PXST_VerifyLod(int handle, const char* path, unsigned int* failAddress);

/* Reads `wordCount` 32-bit words from `address` upwards into a new file at `path`: raw
 * words in the machine's byte order if `binary` is non-zero, else a LOD text packet.
 * Results: 0; 3; 12; 16 the file cannot be created (or memory for the words cannot be had);
 * 13 for a word count above 2^31 - 1 (more than a LOD packet holds; nothing created); a
 * block read's code (the file is then left empty). */
PELLIX_EXPORT unsigned int PXST_DumpLod(int handle, const char* path, unsigned int address,
                                        unsigned int wordCount, int binary);

/* Variants of the three calls above that report progress through `callback` (null allowed)
 * with `userData`: they move each packet in chunks of at most 64 KiB and call back after
 * every chunk, with done and total in bytes. The total of a load with verification counts
 * both passes; it is known before the first block call (the file is read once more to
 * count). Same results as the calls above, and 21 when the callback asked to stop: what was
 * moved before stays moved (a load is not undone; a dump's file is left empty). */
PELLIX_EXPORT unsigned int PXST_LoadLodProgress(int handle, const char* path, int verify,
                                                unsigned int* failAddress,
                                                PXST_ProgressCallback callback, void* userData);
PELLIX_EXPORT unsigned int PXST_VerifyLodProgress(int handle, const char* path,
                                                  unsigned int* failAddress,
                                                  PXST_ProgressCallback callback, void* userData);
PELLIX_EXPORT unsigned int PXST_DumpLodProgress(int handle, const char* path, unsigned int address,
                                                unsigned int wordCount, int binary,
                                                PXST_ProgressCallback callback, void* userData);

/* ---- additions with C linkage ---------------------------------------------------------------
 * Not in the original set of calls; there for callers that reach the library through a C
 * foreign-function interface (the Python package, for one). */

/* Pings the server and waits for its answer: PXST_Ping with C linkage.
 * Results: 0; 3; 12; 13 no answer within 5000 ms. Blocks at most 5000 ms. */
PELLIX_EXPORT unsigned int PXST_PingPellix(int handle);

/* Sets the baud rate of the server's serial link. Results: 0; 3; 12. Returns once the
 * request is written. */
PELLIX_EXPORT unsigned int PXST_ChangeBaudRate(int handle, int baud);

#ifdef __cplusplus
}

/* ---- C++ linkage ---------------------------------------------------------------------------- */

/* Pings the server and waits for its answer. Results: 0; 3; 12; 13 no answer within 5000 ms.
 * Blocks at most 5000 ms. */
PELLIX_EXPORT unsigned int PXST_Ping(int handle);

/* Another name for PXST_ReadBlock. */
PELLIX_EXPORT unsigned int PXST_BatchRead(int handle, unsigned int address, unsigned char* buffer,
                                          unsigned int size);

/* Not supported: returns 30 without looking at its arguments. */
PELLIX_EXPORT unsigned int PXST_ReadBlockUSB(int handle, unsigned int address,
                                             unsigned char* buffer, unsigned int size);

#endif /* __cplusplus */

#endif
