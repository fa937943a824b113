#ifndef PELLIX_PXAPIFRAME_P_H
#define PELLIX_PXAPIFRAME_P_H

// The handle resolution shared by every PXST_ function that takes a handle. Not installed.

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"

namespace pxapi {

// Looks the handle up (3 when unknown), checks that its connection has a socket (12 when
// not) and returns what `operation` returns for the connection. Runs on the caller's thread.
template <typename Operation>
unsigned int withConnection(int handle, Operation&& operation)
{
    PXConnection* connection = PXConnection::GetById(handle);
    if (connection == nullptr)
        return PXST_RESULT_UNKNOWN_HANDLE;
    if (!connection->isConnected())
        return PXST_RESULT_NOT_CONNECTED;
    return operation(*connection);
}

} // namespace pxapi

#endif
