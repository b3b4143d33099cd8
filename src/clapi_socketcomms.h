// The Gateway's message header and the flows built on it: handshake, close
// and the ECI request.
#pragma once

#include <cstdint>

#include "clapi_export.h"
#include "clapi_socketbuffer.h"

inline constexpr uint32_t kHeaderMagic = 0x47617465;  // "Gate"
inline constexpr uint32_t kProtocolVersionWord = 0x10800000;
inline constexpr int32_t kFlowEciRequest = 1;
inline constexpr int32_t kFlowHandshake = 5;
inline constexpr int32_t kFlowException = 6;
inline constexpr int32_t kFlowClose = 10;
inline constexpr int32_t kCallTypeSync = 1;
inline constexpr int32_t kCallTypeListSystems = 9;
inline constexpr int32_t kCallTypeSyncTpn = 12;
inline constexpr uint32_t kSystemEntrySize = 70;

struct QvaChannel;

// One request and, after the flow, its reply. The first nine fields are the
// header; the record holds flowQualifier before flowReserved, while the wire
// carries flowReserved first, in both directions.
struct GatewayRequest {
  uint32_t magic;
  uint32_t version;
  int32_t flowType;
  int32_t flowQualifier;
  int32_t flowReserved;
  uint32_t nameLength;
  char *name;  // writable: the reply's name is read back into it
  uint8_t headerFlag;
  int32_t dataLength;
  int32_t callType;
  int32_t extendMode;
  int32_t luwToken;
  int32_t spareInt;
  uint8_t spareByte;
  char systemName[8];
  char userId[16];
  char password[16];
  char programName[8];
  char transId[4];
  char abendCode[4];
  int32_t extraDataLength;
  uint8_t *extraData;
  int32_t commareaLength;
  uint8_t *commarea;
  int32_t replyDataLength;
  int32_t requestDataLength;
  QvaChannel *channel;  // a channel call's channel, else null
  int16_t timeout;
  uint8_t trailerFlag;
  int32_t extensionMarker;
  int32_t extension1Length;
  uint8_t *extension1;
  int32_t extension2Length;
  uint8_t *extension2;
  int32_t trailerWord;
  int32_t systemCount;
  int32_t replyRc;
  // Set once a program reply's LUW token and abend code have arrived whole,
  // so that they reach the caller even when a later part of the reply fails:
  // a unit of work must stay committable.
  bool unitFieldsRead;
};

// The request class names; writable, because a reply header is read back
// into the same storage.
extern char HANDSHAKE_REQUEST_NAME[5];

void writeHeader(SocketBuffer *sockBuffer, GatewayRequest *req);
int readHeader(SocketBuffer *sockBuffer, GatewayRequest *req);

// Flows on a connected socket. *reasons receives the socket's errno (0 if
// no socket error happened); it may be null.
CLAPI_EXPORT int clapiFlowHandshakeRequest(int socketDesc, int32_t *reasons);
CLAPI_EXPORT int clapiFlowCloseRequest(int socketDesc, int32_t *reasons);
CLAPI_EXPORT int clapiFlowECIRequest(int socketDesc, GatewayRequest *request, int32_t *reasons);

// Request body size as the header announces it.
int32_t calculateECIRequestSize(const GatewayRequest *request);

// ---- Channels on the wire (the caller holds the channel's lock) ---------------

// Bytes of the channel block: 24, and 28 plus the data of each container.
uint64_t channelWireSize(const QvaChannel *channel);
void writeChannel(SocketBuffer *sockBuffer, QvaChannel *channel);
// Merges a return flow into the channel; stops at the first failing entry.
int readChannel(SocketBuffer *sockBuffer, QvaChannel *channel);
