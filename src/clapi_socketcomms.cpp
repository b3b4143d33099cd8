// Message header, handshake and close flows, and the ECI request flow.

#include "clapi_socketcomms.h"

#include <algorithm>
#include <cstring>

#include "clapi_diag.h"
#include "qvaclient/qva_codes.h"

char HANDSHAKE_REQUEST_NAME[5] = "BASE";

namespace {

// A header without its name: magic, version, flowType, flowReserved,
// flowQualifier, nameLength and dataLength (4 bytes each) and headerFlag.
constexpr uint32_t kHeaderSizeWithoutName = 7 * 4 + 1;
// What every ECI body carries: callType, timeout, trailerFlag,
// extensionMarker and trailerWord.
constexpr int32_t kEciBodyFixedSize = 4 + 2 + 1 + 4 + 4;
// The two extension length words, when extension strings follow.
constexpr int32_t kEciExtensionLengthsSize = 2 * 4;
// The fixed fields of a program call: extendMode, luwToken, spareInt,
// spareByte, the server name's length and the name, userId, password,
// programName and transId; extraDataLength and commareaLength; the two
// length-present bytes and the channel-present byte.
constexpr int32_t kProgramCallFixedSize = (4 + 4 + 4 + 1 + 4 + 8 + 16 + 16 + 8 + 4) + (4 + 4) + 3;
static_assert(kHeaderSizeWithoutName == 29 && kEciBodyFixedSize == 15 && kProgramCallFixedSize == 80);

// The language and country codes the handshake announces.
constexpr uint8_t kHandshakeBody[22] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};

void fillHeader(GatewayRequest *req, int32_t flowType, int32_t flowQualifier, char *name, int32_t dataLength) {
  req->magic = kHeaderMagic;
  req->version = kProtocolVersionWord;
  req->flowType = flowType;
  req->flowQualifier = flowQualifier;
  req->flowReserved = 0;
  req->name = name;
  req->nameLength = static_cast<uint32_t>(std::strlen(name));
  req->headerFlag = 0;
  req->dataLength = dataLength;
}

bool carriesCommarea(const GatewayRequest *request) { return request->extendMode != 2 && request->extendMode != 4; }

bool isProgramCall(int32_t callType) { return callType == kCallTypeSync || callType == kCallTypeSyncTpn; }

// Ends a flow: reasons, then the buffer released; a failure of the release
// matters only when nothing failed before it.
int finishFlow(SocketBuffer *sockBuffer, int rc, int32_t *reasons) {
  if (reasons != nullptr) *reasons = sockBuffer->lastErrno;
  int freeRc = freeBuffer(sockBuffer);
  return rc != QVA_OK ? rc : freeRc;
}

void writeEciBody(SocketBuffer *sb, GatewayRequest *request) {
  writeInt(sb, request->callType);
  if (isProgramCall(request->callType)) {
    writeInt(sb, request->extendMode);
    writeInt(sb, request->luwToken);
    writeInt(sb, request->spareInt);
    writeByte(sb, request->spareByte);
    writeInt(sb, sizeof request->systemName);
    writeBytes(sb, request->systemName, sizeof request->systemName);
    writeBytes(sb, request->userId, sizeof request->userId);
    writeBytesMasked(sb, request->password, sizeof request->password);
    writeBytes(sb, request->programName, sizeof request->programName);
    writeBytes(sb, request->transId, sizeof request->transId);
    writeInt(sb, request->extraDataLength);
    if (request->extraDataLength > 0)
      writeBytes(sb, request->extraData, static_cast<uint32_t>(request->extraDataLength));
    writeInt(sb, request->commareaLength);
    writeByte(sb, request->requestDataLength > 0 ? 0xFF : 0x00);
    if (request->requestDataLength > 0) writeInt(sb, request->requestDataLength);
    writeByte(sb, request->replyDataLength > 0 ? 0xFF : 0x00);
    if (request->replyDataLength > 0) writeInt(sb, request->replyDataLength);
    if (carriesCommarea(request)) {
      int32_t sendLength = request->requestDataLength > 0 ? request->requestDataLength : request->commareaLength;
      if (sendLength > 0) writeBytes(sb, request->commarea, static_cast<uint32_t>(sendLength));
    }
    writeByte(sb, request->channel != nullptr ? 0xFF : 0x00);
    if (request->channel != nullptr) writeChannel(sb, request->channel);
  } else if (request->callType == kCallTypeListSystems) {
    writeInt(sb, request->systemCount);
  }
  writeShort(sb, request->timeout);
  writeByte(sb, request->trailerFlag);
  writeInt(sb, request->extensionMarker);
  if (request->extensionMarker != -1) {
    writeInt(sb, request->extension1Length);
    if (request->extension1Length > 0)
      writeBytes(sb, request->extension1, static_cast<uint32_t>(request->extension1Length));
    writeInt(sb, request->extension2Length);
    if (request->extension2Length > 0)
      writeBytes(sb, request->extension2, static_cast<uint32_t>(request->extension2Length));
  }
  writeInt(sb, request->trailerWord);
}

// Reads `announced` bytes into a caller's area of `capacity` bytes: what
// does not fit is read and dropped so that the connection stays in step.
// Returns false when the Gateway sent more than the area holds.
bool readBounded(SocketBuffer *sb, uint8_t *area, int32_t announced, int32_t capacity) {
  if (announced < 0) {
    markMalformed(sb);
    return true;
  }
  uint32_t kept = static_cast<uint32_t>(std::min(announced, std::max(capacity, 0)));
  if (kept > 0) readBytes(sb, area, kept);
  if (static_cast<uint32_t>(announced) == kept) return true;
  discardBytes(sb, static_cast<uint32_t>(announced) - kept);
  return false;
}

int readProgramReply(SocketBuffer *sb, GatewayRequest *request, int32_t commareaCapacity) {
  int rc = QVA_OK;
  request->luwToken = readInt(sb);
  request->spareInt = readInt(sb);
  request->replyRc = readInt(sb);
  readBytes(sb, request->abendCode, sizeof request->abendCode);
  request->unitFieldsRead = !bufferFailed(sb);
  request->commareaLength = readInt(sb);
  if (readByte(sb) != 0) {
    readByte(sb);
    request->replyDataLength = readInt(sb);
  } else {
    request->replyDataLength = request->commareaLength;
  }
  if (carriesCommarea(request) && !bufferFailed(sb)) {
    if (!readBounded(sb, request->commarea, request->replyDataLength, commareaCapacity)) {
      rc = QVA_ERR_INVALID_DATA_LENGTH;
      TRACE_EXC(3226,
                "clapi_socketcomms.clapiFlowECIRequest Gateway returned %d COMMAREA bytes, more than the %d the caller "
                "holds; the excess was dropped\n",
                request->replyDataLength, commareaCapacity);
    }
    // The rest of the caller's COMMAREA, up to the length the reply gives,
    // is cleared; never past the caller's own length.
    int32_t kept = std::clamp(request->replyDataLength, 0, commareaCapacity);
    int32_t clearTo = std::clamp(request->commareaLength, 0, commareaCapacity);
    if (!bufferFailed(sb) && kept < clearTo) {
      std::memset(request->commarea + kept, 0, static_cast<size_t>(clearTo - kept));
    }
  }
  const bool channelReturned = readByte(sb) != 0 && !bufferFailed(sb);
  if (channelReturned && request->channel != nullptr) {
    int mergeRc = readChannel(sb, request->channel);
    if (rc == QVA_OK) rc = mergeRc;
  } else if (channelReturned) {
    // A channel return flow answers a channel request only.
    TRACE_EXC(3228,
              "clapi_socketcomms.clapiFlowECIRequest Gateway returned a channel for a COMMAREA request; %lu bytes "
              "dropped\n",
              static_cast<unsigned long>(unreadBytes(sb)));
    discardBytes(sb, unreadBytes(sb));
    if (rc == QVA_OK) rc = QVA_ERR_SYSTEM_ERROR;
  }
  return rc;
}

int readSystemsReply(SocketBuffer *sb, GatewayRequest *request, int32_t entryCapacity) {
  int rc = QVA_OK;
  request->systemCount = readInt(sb);
  request->replyRc = readInt(sb);
  request->commareaLength = readInt(sb);
  int32_t byteCapacity = entryCapacity * static_cast<int32_t>(kSystemEntrySize);
  if (!bufferFailed(sb) && !readBounded(sb, request->commarea, request->commareaLength, byteCapacity)) {
    rc = QVA_ERR_MORE_SYSTEMS;
    TRACE_EXC(3227,
              "clapi_socketcomms.clapiFlowECIRequest Gateway returned %d bytes of server list, more than the %d the "
              "caller holds; the excess was dropped\n",
              request->commareaLength, byteCapacity);
    request->commareaLength = byteCapacity;
  }
  return rc;
}

}  // namespace

// ---- Header ------------------------------------------------------------------

void writeHeader(SocketBuffer *sockBuffer, GatewayRequest *req) {
  TRACE_ENTRY(3240, "clapi_socketcomms.writeHeader(sockBuffer=%p, req=%p)\n", addr(sockBuffer), addr(req));
  writeInt(sockBuffer, static_cast<int32_t>(req->magic));
  writeInt(sockBuffer, static_cast<int32_t>(req->version));
  writeInt(sockBuffer, req->flowType);
  writeInt(sockBuffer, req->flowReserved);
  writeInt(sockBuffer, req->flowQualifier);
  writeInt(sockBuffer, static_cast<int32_t>(req->nameLength));
  writeBytes(sockBuffer, req->name, req->nameLength);
  writeByte(sockBuffer, req->headerFlag);
  writeInt(sockBuffer, req->dataLength);
  TRACE_EXIT(3241, "clapi_socketcomms.writeHeader(req=%p, sockBuffer=%p)\n", addr(req), addr(sockBuffer));
}

int readHeader(SocketBuffer *sockBuffer, GatewayRequest *req) {
  TRACE_ENTRY(3242, "clapi_socketcomms.readHeader(sockBuffer=%p, req=%p)\n", addr(sockBuffer), addr(req));
  // The reply is expected to carry a name as long as the request's, which
  // is also all the name storage there is.
  const uint32_t nameCapacity = req->nameLength;
  int rc = initReadBuffer(sockBuffer, sockBuffer->socketDesc, nameCapacity + kHeaderSizeWithoutName);
  if (rc == QVA_OK) rc = fillHeaderBuffer(sockBuffer);
  if (rc == QVA_OK) {
    req->magic = static_cast<uint32_t>(readInt(sockBuffer));
    req->version = static_cast<uint32_t>(readInt(sockBuffer));
    req->flowType = readInt(sockBuffer);
    req->flowReserved = readInt(sockBuffer);
    req->flowQualifier = readInt(sockBuffer);
    auto nameLength = static_cast<uint32_t>(readInt(sockBuffer));
    if (nameLength > nameCapacity) {
      markMalformed(sockBuffer);
    } else {
      req->nameLength = nameLength;
      readBytes(sockBuffer, req->name, nameLength);
    }
    req->headerFlag = readByte(sockBuffer);
    req->dataLength = readInt(sockBuffer);
    if (req->dataLength < 0) markMalformed(sockBuffer);
    if (bufferFailed(sockBuffer)) rc = sockBuffer->failure;
  }
  TRACE_EXIT(3243, "clapi_socketcomms.readHeader() rc=%d\n", rc);
  return rc;
}

// ---- Handshake and close -----------------------------------------------------

int clapiFlowHandshakeRequest(int socketDesc, int32_t *reasons) {
  TRACE_ENTRY(3215, "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=%d, *reasons=%p)\n", socketDesc,
              addr(reasons));
  char name[sizeof HANDSHAKE_REQUEST_NAME];
  std::memcpy(name, HANDSHAKE_REQUEST_NAME, sizeof name);
  GatewayRequest req{};
  fillHeader(&req, kFlowHandshake, 0, name, sizeof kHandshakeBody);
  SocketBuffer sb{};
  int rc = initWriteBuffer(&sb, socketDesc, req.nameLength + kHeaderSizeWithoutName + sizeof kHandshakeBody);
  if (rc == QVA_OK) {
    writeHeader(&sb, &req);
    writeBytes(&sb, kHandshakeBody, sizeof kHandshakeBody);
    rc = flushBuffer(&sb);
  }
  if (rc == QVA_OK) rc = waitForResponse(&sb);
  if (rc == QVA_OK) rc = readHeader(&sb, &req);
  if (rc == QVA_OK) rc = initReadBuffer(&sb, socketDesc, static_cast<uint32_t>(req.dataLength));
  if (rc == QVA_OK) rc = fillBuffer(&sb);
  // The body is not interpreted; one longer than the buffer is still
  // consumed whole, so the next flow starts at a header.
  if (rc == QVA_OK && sb.bytesRemaining > 0) {
    discardBytes(&sb, unreadBytes(&sb));
    if (bufferFailed(&sb)) rc = sb.failure;
  }
  rc = finishFlow(&sb, rc, reasons);
  TRACE_EXIT(3219, "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=%d, *reasons=%p) rc=%d\n", socketDesc,
             addr(reasons), rc);
  return rc;
}

int clapiFlowCloseRequest(int socketDesc, int32_t *reasons) {
  TRACE_ENTRY(3220, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=%d, *reasons=%p)\n", socketDesc, addr(reasons));
  char name[sizeof HANDSHAKE_REQUEST_NAME];
  std::memcpy(name, HANDSHAKE_REQUEST_NAME, sizeof name);
  GatewayRequest req{};
  fillHeader(&req, kFlowClose, -1, name, 0);
  SocketBuffer sb{};
  int rc = initWriteBuffer(&sb, socketDesc, req.nameLength + kHeaderSizeWithoutName);
  if (rc == QVA_OK) {
    writeHeader(&sb, &req);
    rc = flushBuffer(&sb);
  }
  if (rc == QVA_OK) rc = waitForResponse(&sb);
  if (rc == QVA_OK) rc = readHeader(&sb, &req);
  // Unlike the handshake, the body length is looked at before the buffer is
  // set up again: with no body, fillBuffer has nothing left to read.
  if (rc == QVA_OK && req.dataLength > 0) rc = initReadBuffer(&sb, socketDesc, static_cast<uint32_t>(req.dataLength));
  if (rc == QVA_OK) rc = fillBuffer(&sb);
  rc = finishFlow(&sb, rc, reasons);
  TRACE_EXIT(3224, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=%d, *reasons=%p) rc=%d\n", socketDesc,
             addr(reasons), rc);
  return rc;
}

// ---- ECI request -----------------------------------------------------------

int32_t calculateECIRequestSize(const GatewayRequest *request) {
  TRACE_ENTRY(3209, "clapi_socketcomms.calculateECIRequestSize(*request=%p)\n", addr(request));
  int32_t size = kEciBodyFixedSize;
  if (request->extensionMarker != -1)
    size += kEciExtensionLengthsSize + request->extension1Length + request->extension2Length;
  if (request->callType == kCallTypeListSystems) size += 4;
  if (isProgramCall(request->callType)) {
    size += kProgramCallFixedSize + request->extraDataLength;
    if (request->replyDataLength > 0) size += 4;
    if (request->requestDataLength > 0) size += 4;
    if (carriesCommarea(request)) {
      size += request->requestDataLength > 0 ? request->requestDataLength : request->commareaLength;
    }
    // The channel call has checked that its channel fits the 32-bit size.
    if (request->channel != nullptr) size += static_cast<int32_t>(channelWireSize(request->channel));
  }
  TRACE_EXIT(3214, "clapi_socketcomms.calculateECIRequestSize(*request=%p) requestSize=%d\n", addr(request), size);
  return size;
}

int clapiFlowECIRequest(int socketDesc, GatewayRequest *request, int32_t *reasons) {
  TRACE_ENTRY(3209, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=%d, *request=%p, *reasons=%p)\n", socketDesc,
              addr(request), addr(reasons));
  request->dataLength = calculateECIRequestSize(request);
  // What the caller's areas hold, before the reply overwrites the fields.
  const int32_t commareaCapacity = request->commarea != nullptr ? request->commareaLength : 0;
  const int32_t entryCapacity = request->commarea != nullptr ? std::max(request->systemCount, 0) : 0;

  SocketBuffer sb{};
  int rc = initWriteBuffer(&sb, socketDesc,
                           request->nameLength + kHeaderSizeWithoutName + static_cast<uint32_t>(request->dataLength));
  if (rc == QVA_OK) {
    writeHeader(&sb, request);
    writeEciBody(&sb, request);
    rc = flushBuffer(&sb);
  }
  if (rc == QVA_OK) rc = waitForResponse(&sb);
  if (rc == QVA_OK) rc = readHeader(&sb, request);
  if (rc == QVA_OK) rc = initReadBuffer(&sb, socketDesc, static_cast<uint32_t>(request->dataLength));
  if (rc == QVA_OK) {
    if (request->flowType == kFlowException) {
      fillBuffer(&sb);
      discardBytes(&sb, unreadBytes(&sb));
      TRACE_EXC(3225, "clapi_socketcomms.clapiFlowECIRequest An exception occurred in the Gateway daemon\n");
      rc = QVA_ERR_GATEWAY_EXCEPTION;
    } else {
      request->callType = readInt(&sb);
      if (isProgramCall(request->callType)) {
        rc = readProgramReply(&sb, request, commareaCapacity);
      } else if (request->callType == kCallTypeListSystems) {
        rc = readSystemsReply(&sb, request, entryCapacity);
      }
      if (bufferFailed(&sb)) {
        rc = sb.failure;
      } else if (unreadBytes(&sb) > 0) {
        // Bytes this flow does not know are dropped: the next request must
        // start at a reply header.
        TRACE_DEBUG(3229, "clapi_socketcomms.clapiFlowECIRequest Dropping %lu unread reply bytes\n",
                    static_cast<unsigned long>(unreadBytes(&sb)));
        discardBytes(&sb, unreadBytes(&sb));
        if (bufferFailed(&sb)) rc = sb.failure;
      }
    }
  }
  rc = finishFlow(&sb, rc, reasons);
  TRACE_EXIT(3214, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=%d, *request=%p, *reasons=%p) rc=%d\n", socketDesc,
             addr(request), addr(reasons), rc);
  return rc;
}
