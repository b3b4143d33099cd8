/* The ECI parameter block: one program call's inputs and outputs. */
#ifndef QVACLIENT_QVA_ECI_H
#define QVACLIENT_QVA_ECI_H

#ifdef __cplusplus
extern "C" {
#endif

/* A channel created with ECI_createChannel; its inside is the library's. */
typedef struct QvaChannel QvaChannel;

/* Extend modes of eci_extend_mode. */
#define ECI_NO_EXTEND 0
#define ECI_EXTENDED  1
#define ECI_COMMIT    2
#define ECI_BACKOUT   4

/* The only call type accepted in eci_call_type. */
#define ECI_SYNC 1

/* The newest structure version; QVA_ECI_Execute accepts 3 and 4. */
#define ECI_VERSION_4 4

/* Packed: every field directly follows the one before it. Character fields
 * are blank padded and carry no terminator. Integers are in the host's byte
 * order. The names stand in one column, which clang-format would undo. */
/* clang-format off */
#pragma pack(push, 1)
typedef struct ECI_PARMS {
  short eci_call_type;          /* in: ECI_SYNC */
  char  eci_program_name[8];    /* in: server program */
  char  eci_userid[16];         /* in */
  char  eci_password[16];       /* in: sent as is, shown as '*' in every trace dump */
  char  eci_transid[4];         /* in: used when eci_tpn is four NUL bytes */
  char  eci_abend_code[4];      /* out */
  void *eci_commarea;           /* in/out: COMMAREA, or NULL with length 0 */
  short eci_commarea_length;    /* in: bytes at eci_commarea, >= 0 */
  short eci_timeout;            /* in: seconds, >= 0, enforced by the Gateway */
  short eci_extend_mode;        /* in: ECI_NO_EXTEND, ECI_EXTENDED, ECI_COMMIT, ECI_BACKOUT */
  int   eci_luw_token;          /* in/out: logical unit of work */
  short eci_version;            /* in: structure version */
  char  eci_system_name[8];     /* in: target server */
  char  eci_tpn[4];             /* in: when not four NUL bytes, sent in place of eci_transid */
  short eci_send_length;        /* in: > 0 sends only this many COMMAREA bytes */
  short eci_receive_length;     /* in: > 0 asks for at most this many bytes back */
  QvaChannel *eci_channel;      /* in: for QVA_ECI_Execute_Channel; ignored by QVA_ECI_Execute */
} ECI_PARMS;
#pragma pack(pop)
/* clang-format on */

/* One entry of the server list filled by QVA_listSystems: 70 bytes. */
#define QVA_SYSTEM_NAME_SIZE        9
#define QVA_SYSTEM_DESCRIPTION_SIZE 61
typedef struct QVA_SYSTEM_ENTRY {
  char SystemName[QVA_SYSTEM_NAME_SIZE];         /* trailing blanks replaced by NULs */
  char Description[QVA_SYSTEM_DESCRIPTION_SIZE]; /* as the Gateway sent it */
} QVA_SYSTEM_ENTRY;

#ifdef __cplusplus
}
#endif

#endif /* QVACLIENT_QVA_ECI_H */
