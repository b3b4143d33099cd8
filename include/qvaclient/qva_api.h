/* The qvaclient application interface: library frame, trace control,
 * connections and ECI calls. Every function runs in the caller's thread. */
#ifndef QVACLIENT_QVA_API_H
#define QVACLIENT_QVA_API_H

#include "qva_codes.h"
#include "qva_eci.h"
#include "qva_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result-code names and versions ------------------------------------ */

/* Writes the name of any QVA_ or ECI_ result code ("UNKNOWN" for others) into
 * rcString, which must hold QVA_RC_STRING_SIZE bytes, and returns rcString. */
QVA_API char *QVA_getRcString(int rc, char *rcString);

/* Names ECI codes -60 to -1 only; everything else is "UNKNOWN". */
QVA_API char *QVA_getRcStringECI(int rc, char *rcString);

/* Store a pointer to the library's version text ("8.0.0.1") or the API
 * version text ("2.1.0.0"). The text belongs to the library: do not change
 * or free it. */
QVA_API int QVA_getDLLVersion(char **dllVersPtr);
QVA_API int QVA_getAPIVersion(char **apiVersPtr);

/* ---- Trace control ------------------------------------------------------ */

/* Levels: 0 off, 1 exceptions, 2 events, 3 entry/exit, 4 debug and data
 * dumps, 5 lock operations too. */
QVA_API int QVA_setAPITraceLevel(int traceState);
QVA_API int QVA_getAPITraceLevel(int *traceStatePtr);

/* Appends the trace to traceFile, or writes it to standard error when
 * traceFile is NULL. Names of 1024 characters or more are refused with
 * QVA_ERR_TRACEFILE. */
QVA_API int QVA_setAPITraceFile(const char *traceFile);

/* First byte of a data block that a trace dump shows. */
QVA_API void QVA_setAPITraceDataOffset(unsigned int dataOffset);

/* Most bytes a trace dump shows; 0 shows whole blocks. */
QVA_API void QVA_setAPITraceDataLength(unsigned int dataLength);

/* Writes the library's state (settings, connections, channels) to the trace
 * at every level, level 0 included. */
QVA_API int QVA_dumpState(void);

/* ---- Connections --------------------------------------------------------- */

/* The handle of one open Gateway connection. Only the thread that opened it
 * may use it. */
typedef struct QvaGatewayToken QvaGatewayToken;

/* Connects to the Gateway at hostname:port (host name or numeric address)
 * and greets it. On success the new token is stored in *gwTokPtr.
 *
 * connTimeout must be 0 to 3600 (else QVA_ERR_INVALIDTIMEOUTPARM), but by
 * default it does not limit the connect: the connect blocks until it is
 * made, refused, or ended by the system's own TCP connect timeout (minutes
 * on Linux), whatever connTimeout says. Only a connect that a signal
 * interrupts (a handler installed without SA_RESTART) waits at most
 * connTimeout seconds more for its end.
 *
 * With the reply deadline set (QVA_CLIENT_REPLY_TIMEOUT), connTimeout is
 * honoured: a connect not made within connTimeout seconds fails with
 * QVA_ERR_CONNECTTIMEOUT; 0 sets no limit. The handshake's reply is then
 * bounded by the reply deadline like any other: one that does not come in
 * time fails the open with QVA_ERR_CONNECTFAILED. */
QVA_API int QVA_openRemoteGatewayConnection(const char *hostname, int port, QvaGatewayToken **gwTokPtr,
                                            int connTimeout);

/* Closes the connection and sets *gwTokPtr to NULL. */
QVA_API int QVA_closeGatewayConnection(QvaGatewayToken **gwTokPtr);

/* Closes every connection of the process, whichever thread opened it. A
 * call in flight on one of them ends at once with QVA_ERR_LOSTGWCON (or
 * with its reply, if that came first); a connection still being opened by
 * another thread is left open. See docs/THREADS.md. */
QVA_API int QVA_closeAllGatewayConnections(void);

/* ---- ECI calls ------------------------------------------------------------ */

/* Calls a server program with a COMMAREA. Returns a QVA_ code for argument,
 * token and transport failures, an ECI_ code from validation, or the code the
 * Gateway returned. The library never writes past eci_commarea_length bytes
 * of the COMMAREA: when the Gateway returns more, the first
 * eci_commarea_length bytes are kept, the rest is read and dropped (so the
 * connection stays usable) and the call returns QVA_ERR_INVALID_DATA_LENGTH.
 * A reply that carries a channel for a COMMAREA call is dropped likewise and
 * gives QVA_ERR_SYSTEM_ERROR. */
QVA_API int QVA_ECI_Execute(QvaGatewayToken *gwTok, ECI_PARMS *EciParms);

/* Calls a server program with the channel in eci_channel (eci_version 4,
 * no COMMAREA). The channel is locked for the whole round trip, and the
 * containers the program added, changed or deleted are merged into it. When
 * the merge fails (QVA_ERR_SYSTEM_ERROR, QVA_ERR_MALLOCFAIL or
 * QVA_ERR_LOSTGWCON), the entries merged before the failing one stay merged,
 * and every container holds either its old data or its new data in full.
 * eci_password is briefly overwritten with '*' while the block is traced and
 * is restored before the call returns. */
QVA_API int QVA_ECI_Execute_Channel(QvaGatewayToken *gwTok, ECI_PARMS *EciParms);

/* Lists the servers the Gateway knows. *Systems holds the number of entries
 * that List can take and receives the number of servers the Gateway reports.
 * The library never writes past the entries List can take: when the Gateway
 * sends more, they are read and dropped. With QVA_ERR_MORE_SYSTEMS, *Systems
 * may exceed what List holds: only the entries List can take are filled. */
QVA_API int QVA_listSystems(QvaGatewayToken *gwTok, unsigned short *Systems, QVA_SYSTEM_ENTRY *List);

#ifdef __cplusplus
}
#endif

#endif /* QVACLIENT_QVA_API_H */
