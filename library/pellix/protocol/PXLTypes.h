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

/* Client type announced by PXNSConnection::setClientType. The library defines no values;
 * the request carries the low 8 bits of whatever the caller passes. */
typedef unsigned int pxl_client_type_t;

#endif
