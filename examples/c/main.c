/* A plain C program on the pellix C interface: connects to a server, writes and reads target
 * memory, raises an event on the simulator and waits for it, and sends a bypass packet that
 * the simulator echoes back.
 *
 *   pellix-example-c HOST TCP_PORT   connect to a running server (e.g. 127.0.0.1 7703)
 *   pellix-example-c N               serial port N: connect to 127.0.0.1:7700+N, starting
 *                                    the pellix server from this program's folder if needed
 */
#include <pellix/api/PXLLibraryApi.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The pellix simulator raises event V when V is written to this address. */
#define EVENT_REGISTER 0xFFFFFF00u

static int check(const char* what, unsigned int result)
{
    if (result != PXST_RESULT_OK) {
        fprintf(stderr, "%s: error %u: %s\n", what, result, PXST_ResultText(result));
        return 0;
    }
    return 1;
}

static int run(int handle)
{
    unsigned int value = 0;
    unsigned int words[4] = {0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u};
    unsigned int back[4] = {0};
    unsigned int event = 0;
    unsigned char flow = 0x21;
    unsigned char data[3] = {0x01, 0x02, 0x03};
    unsigned char packet[64];
    unsigned char gotFlow = 0;
    int length = 0;

    /* PXST_Ping has C++ linkage; from C the status query shows the server answers. */
    if (!check("status", PXST_PellixStatus(handle, &value)))
        return 0;
    printf("server status %u\n", value);

    if (!check("write32", PXST_Write32(handle, 0x1000, 0xCAFEF00Du)) ||
        !check("read32", PXST_Read32(handle, 0x1000, &value)))
        return 0;
    printf("read32 0x1000 = 0x%08X\n", value);

    if (!check("write block", PXST_WriteBlock(handle, 0x2000, words, sizeof words)) ||
        !check("read block", PXST_ReadBlock(handle, 0x2000, back, sizeof back)))
        return 0;
    printf("block at 0x2000 %s\n", memcmp(words, back, sizeof words) == 0 ? "matches" : "differs");

    /* Events: enable, raise one through the simulator's event register, wait for it. */
    if (!check("enable events", PXST_EnableEvents(handle, 1)) ||
        !check("raise event", PXST_Write32(handle, EVENT_REGISTER, 42)) ||
        !check("wait event", PXST_WaitEvent(handle, &event, 5000)))
        return 0;
    printf("event %u\n", event);

    /* Bypass: subscribe to flow 0x21, send on it, wait for the echo. The packet arrives whole:
     * start byte, 16-bit length, flow id, data, checksum. */
    if (!check("bypass enable", PXST_BypassEnable(handle, &flow, 1)) ||
        !check("bypass send", PXST_BypassSendPacket(handle, flow, data, sizeof data)) ||
        !check("bypass wait",
               PXST_BypassWaitPacket(handle, &gotFlow, packet, sizeof packet, &length, 5000)))
        return 0;
    printf("bypass packet on flow 0x%02X, %d data byte(s)\n", gotFlow, length - 5);

    return value == 0xCAFEF00Du && memcmp(words, back, sizeof words) == 0 && event == 42 &&
           gotFlow == flow && length == 5 + (int)sizeof data &&
           memcmp(packet + 4, data, sizeof data) == 0;
}

int main(int argc, char** argv)
{
    int handle = -1;
    unsigned int result;
    int ok;

    if (argc == 3)
        result = PXST_OpenSocket(argv[1], atoi(argv[2]), &handle);
    else if (argc == 2)
        result = PXST_Open(atoi(argv[1]), -1, PXL_FLOW_NONE, &handle);
    else {
        fprintf(stderr, "usage: %s HOST TCP_PORT | %s SERIAL_PORT_NUMBER\n", argv[0], argv[0]);
        return 2;
    }
    if (!check("open", result))
        return 1;

    ok = run(handle);
    PXST_Close(handle);
    printf("%s\n", ok ? "example finished: OK" : "example finished: FAILED");
    return ok ? 0 : 1;
}
