#ifndef PELLIX_PXLTYPES_H
#define PELLIX_PXLTYPES_H

/* Library-level enumerations that travel on the wire. Plain C, so that the C interface
 * header can use them. */

/* Flow control of the server's serial link, carried as a 32-bit little-endian value.
 * Any value other than 1 and 2 means no flow control; every 32-bit value is carried to the
 * server unchanged, so in C++ the type has a fixed underlying type that holds them all. */
#ifdef __cplusplus
typedef enum PXLFlowMode : unsigned int {
#else
typedef enum PXLFlowMode {
#endif
    PXL_FLOW_NONE = 0,
    PXL_FLOW_HARDWARE = 1,
    PXL_FLOW_XONXOFF = 2
} PXLFlowMode;

/* Result codes of every operation of the C interface and of both connection classes, which
 * return them as unsigned int; 0 is success. PXST_ResultText gives the text of each. */
#ifdef __cplusplus
typedef enum PXLResult : unsigned int {
#else
typedef enum PXLResult {
#endif
    PXST_RESULT_OK = 0,
    PXST_RESULT_UNKNOWN_HANDLE = 3,   /* the handle is not known (never given out, or closed) */
    PXST_RESULT_BUFFER_TOO_SMALL = 5, /* a bypass packet is larger than the caller's buffer */
    PXST_RESULT_PACKET_TOO_LARGE = 6, /* a bypass packet or flow id list no request carries */
    PXST_RESULT_NO_PACKET = 8,        /* no bypass packet */
    PXST_RESULT_NO_CONNECTION = 11,   /* no connection could be made */
    PXST_RESULT_NOT_CONNECTED = 12,   /* the connection has no socket */
    PXST_RESULT_TIMEOUT = 13,         /* no reply in time, a reply that does not fit, or a size
                                         no request carries */
    PXST_RESULT_LOD_FORMAT = 15,      /* the LOD file has a data line outside a packet */
    PXST_RESULT_FILE = 16,            /* a file cannot be opened */
    PXST_RESULT_MISMATCH = 17,        /* target memory differs from the LOD file */
    PXST_RESULT_NO_EVENT = 19,        /* no event */
    PXST_RESULT_EVENTS_DISABLED = 20, /* events are not enabled */
    PXST_RESULT_CANCELLED = 21,       /* a progress callback asked a LOD transfer to stop */
    PXST_RESULT_UNSUPPORTED = 30      /* the operation is not supported */
} PXLResult;

/* Client type announced by PXNSConnection::setClientType. The library defines no values;
 * the request carries the low 8 bits of whatever the caller passes. */
typedef unsigned int pxl_client_type_t;

#endif
