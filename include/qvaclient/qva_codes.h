/* Result codes of the qvaclient API.
 *
 * Every function returns a 32-bit signed result code, 0 for success. The QVA_
 * codes belong to the connection, trace and ECI entry points; the ECI_ codes
 * come from ECI parameter validation, from the Gateway's reply and from the
 * channel and container functions. A few values are shared on purpose
 * (-1, -9, -25, -26, -109, -111, -121); QVA_getRcString names any of them.
 */
#ifndef QVACLIENT_QVA_CODES_H
#define QVACLIENT_QVA_CODES_H

/* The values line up on their last digit, which clang-format would undo. */
/* clang-format off */
#define QVA_OK                          0
#define QVA_ERR_INVALID_DATA_LENGTH    (-1)
#define QVA_ERR_SYSTEM_ERROR           (-9)
#define QVA_ERR_MORE_SYSTEMS          (-25)
#define QVA_ERR_NO_SYSTEMS            (-26)
#define QVA_ERR_NULLGWTOK            (-100)
#define QVA_ERR_BADGWTOK             (-101)
#define QVA_ERR_LOSTGWCON            (-102)
#define QVA_ERR_NULLPARM             (-103)
#define QVA_ERR_TRACELEVEL           (-104)
#define QVA_ERR_BADPORT              (-107)
#define QVA_ERR_NULLGWTOKPTR         (-108)
#define QVA_ERR_NULLPTR              (-109)
#define QVA_ERR_MALLOCFAIL           (-111)
#define QVA_ERR_BADGWTOKLIST         (-115)
#define QVA_ERR_CONNECTFAILED        (-118)
#define QVA_ERR_LOCKFAIL             (-121)
#define QVA_ERR_PIDMISMATCH          (-123)
#define QVA_ERR_TIDMISMATCH          (-124)
#define QVA_ERR_TRACEFILE            (-130)
#define QVA_ERR_BADHOST              (-132)
#define QVA_ERR_NULLADDRESS          (-133)
#define QVA_ERR_CONNECTTIMEOUT       (-134)
#define QVA_ERR_NULLECIPOINTER       (-137)
#define QVA_ERR_INVALIDTIMEOUTPARM   (-138)
/* Reported by the Gateway: positive on purpose, 0xF000 to 0xF00F. */
#define QVA_ERR_UNKNOWN_REQUEST_TYPE  0xF002
#define QVA_ERR_GATEWAY_CLOSED        0xF004
#define QVA_ERR_WORK_WAS_REFUSED      0xF005
#define QVA_ERR_GATEWAY_EXCEPTION     0xF006
#define QVA_ERR_GATEWAY_BACK_LEVEL    0xF00A
#define QVA_ERR_INVALID_REQUEST_TYPE  0xF00B

#define ECI_NO_ERROR                    0
#define ECI_ERR_INVALID_DATA_LENGTH    (-1)
#define ECI_ERR_INVALID_EXTEND_MODE    (-2)
#define ECI_ERR_NO_VESK                (-3)
#define ECI_ERR_VESK_DIED              (-4)
#define ECI_ERR_REQUEST_TIMEOUT        (-5)
#define ECI_ERR_RESPONSE_TIMEOUT       (-6)
#define ECI_ERR_TRANSACTION_ABEND      (-7)
#define ECI_ERR_LUW_TOKEN              (-8)
#define ECI_ERR_SYSTEM_ERROR           (-9)
#define ECI_ERR_INVALID_CALL_TYPE     (-14)
#define ECI_ERR_RESOURCE_SHORTAGE     (-16)
#define ECI_ERR_NO_SESSIONS           (-17)
#define ECI_ERR_INVALID_DATA_AREA     (-19)
#define ECI_ERR_INVALID_VERSION       (-21)
#define ECI_ERR_UNKNOWN_SERVER        (-22)
#define ECI_ERR_SECURITY_ERROR        (-27)
#define ECI_ERR_MAX_SYSTEMS           (-28)
#define ECI_ERR_MAX_SESSIONS          (-29)
#define ECI_ERR_ROLLEDBACK            (-30)
#define ECI_ERR_INVALID_CHANNEL       (-50)
#define ECI_ERR_INVALID_NAME          (-51)
#define ECI_ERR_NULLCHANNELPTR        (-52)
#define ECI_ERR_CHANNELLOCKFAIL       (-53)
#define ECI_ERR_ENDOFCONTAINERS       (-54)
#define ECI_ERR_NULLINFOPTR           (-55)
#define ECI_ERR_INVALID_TYPE          (-56)
#define ECI_ERR_CONTAINER_NOTFOUND    (-58)
#define ECI_ERR_CONTAINER_EXISTS      (-59)
#define ECI_ERR_COMMAREA_AND_CHANNEL  (-60)
#define ECI_ERR_NULLPTR              (-109)
#define ECI_ERR_MEMORY_SHORTAGE      (-111)
#define ECI_ERR_LOCKFAIL             (-121)
/* clang-format on */

/* A buffer of this size holds the name of any result code. */
#define QVA_RC_STRING_SIZE 40

#endif /* QVACLIENT_QVA_CODES_H */
