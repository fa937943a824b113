/* Built as C99: proves the C part of the LOD header compiles and links from plain C. */
#include "pellix/lod/LODFileLoader.h"

/* Reads every packet of the file at path; returns the number of packets, -1 if the file
 * cannot be opened, -2 on a data line outside a packet. Stores the sum of all words. */
int lodReadFromC(const char* path, uint32_t* wordSum)
{
    LodFile* file = LOD_Open(path);
    LodPacket* packet = NULL;
    int packets = 0;
    int result;
    *wordSum = 0;
    if (!file)
        return -1;
    while ((result = LOD_NextLodPacket(file, &packet)) == 0 && packet) {
        int i;
        for (i = 0; i < packet->wordCount; ++i)
            *wordSum += packet->words[i];
        ++packets;
        LOD_FreeLodPacket(packet);
    }
    LOD_Close(file);
    return result == 1 ? -2 : packets;
}
