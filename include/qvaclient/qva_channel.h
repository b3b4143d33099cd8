/* Channels and containers: named sets of named data blocks that the library
 * keeps on the client side and sends with QVA_ECI_Execute_Channel.
 *
 * Every function returns an ECI_ result code. Channel and container names
 * are 1 to 16 characters from A-Z, a-z, 0-9 and < > $ @ # / % & ? ! : |
 * backslash, double quote, = ' ; . - _ (case-sensitive). Operations on one
 * channel are serialised by the channel's own lock; different channels can
 * be used from different threads at once. */
#ifndef QVACLIENT_QVA_CHANNEL_H
#define QVACLIENT_QVA_CHANNEL_H

#include <stdint.h>

#include "qva_eci.h"
#include "qva_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Container types. */
#define ECI_BIT  1 /* raw bytes; no code page, CCSID always 0 */
#define ECI_CHAR 2 /* character data in the container's CCSID */

/* A container's description, 29 bytes, byte-packed, native byte order. */
#pragma pack(push, 1)
typedef struct ContainerInfo {
  char name[17];       /* the 16 name bytes and a NUL */
  uint32_t type;       /* ECI_BIT or ECI_CHAR */
  uint32_t ccsid;      /* ECI_CHAR only; 0 for ECI_BIT */
  uint32_t dataLength; /* bytes of data */
} ContainerInfo;
#pragma pack(pop)

/* ---- Channels ------------------------------------------------------------- */

/* Creates an empty channel and stores its token in *tokPtr. Names need not
 * be unique among channels. */
QVA_API int ECI_createChannel(const char *name, QvaChannel **tokPtr);

/* Copies the channel's name, NUL-terminated, into 17 bytes at nameBuffer. */
QVA_API int ECI_getChannelName(QvaChannel *chanTok, char *nameBuffer);

/* Deletes the channel and its containers and sets *tokPtr to NULL. */
QVA_API int ECI_deleteChannel(QvaChannel **tokPtr);

/* Deletes every channel of the process. Must not run while other threads
 * use channels; tokens the application still holds become invalid. */
QVA_API int ECI_deleteAllChannels(void);

/* Writes every channel and container to the trace, at any trace level. */
QVA_API int QVA_ECI_dumpChannels(void);

/* ---- Containers ------------------------------------------------------------- */

/* Creates a container holding a copy of dataLength bytes at data (data may
 * be NULL when dataLength is 0). For ECI_CHAR, ccsid 0 means the channel's
 * CCSID, taken from LANG when the channel has none yet; a channel keeps the
 * first CCSID it is given. For ECI_BIT the ccsid is ignored. */
QVA_API int ECI_createContainer(QvaChannel *chanTok, const char *name, int32_t type, int32_t ccsid, const void *data,
                                uint32_t dataLength);

/* Replaces a container's data with a copy of dataLength bytes at data; 0
 * empties it. Type and CCSID stay. */
QVA_API int ECI_setContainerData(QvaChannel *chanTok, const char *name, const void *data, uint32_t dataLength);

/* Copies at most length bytes of the container's data, from byte offset on,
 * into buffer; *bytesReadPtr (if not NULL) receives the count. An offset at
 * or past the end copies nothing and still succeeds. */
QVA_API int ECI_getContainerData(QvaChannel *chanTok, const char *name, void *buffer, uint32_t length, uint32_t offset,
                                 uint32_t *bytesReadPtr);

QVA_API int ECI_getContainerInfo(QvaChannel *chanTok, const char *name, ContainerInfo *infoPtr);

/* Walk the channel's containers, newest first. ECI_getNextContainer on a
 * fresh channel starts at the first; after ECI_ERR_ENDOFCONTAINERS the next
 * call starts again. Deleting the container the walk stands on is allowed:
 * the walk goes on with the one after it. After a channel call, begin a new
 * walk with ECI_getFirstContainer. */
QVA_API int ECI_getFirstContainer(QvaChannel *chanTok, ContainerInfo *infoPtr);
QVA_API int ECI_getNextContainer(QvaChannel *chanTok, ContainerInfo *infoPtr);

QVA_API int ECI_deleteContainer(QvaChannel *chanTok, const char *name);

/* ---- Code pages --------------------------------------------------------------- */

/* One row of CodeSetTable: LANG values beginning with codeSet map to ccsid. */
typedef struct CodeSetEntry {
  const char *codeSet;
  int32_t ccsid;
} CodeSetEntry;

/* The rows in the order they are tried; ended by a row with an empty string
 * and CCSID 0. */
QVA_API extern const CodeSetEntry CodeSetTable[];

/* Stores the CCSID that LANG names (819 when LANG is unset, empty or not in
 * CodeSetTable) in *ccsidPtr, which must not be NULL; returns 0. Calls
 * setlocale(LC_ALL, "") each time, which sets the process's locale from the
 * environment. */
QVA_API int32_t getCurrentCcsid(int32_t *ccsidPtr);

#ifdef __cplusplus
}
#endif

#endif /* QVACLIENT_QVA_CHANNEL_H */
