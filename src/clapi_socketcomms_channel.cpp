// A channel on the wire: the channel block of a request, and the merge of a
// reply's return flow into the client's channel. The caller holds the
// channel's lock throughout; nothing here takes a lock.
//
// A return flow is the Gateway's word, so it is held to the reply it came
// in: no entry can make the merge allocate more than the reply still holds,
// and every container ends the merge with either its old data or its new
// data in full.

#include <algorithm>
#include <cstring>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_socketcomms.h"

namespace {

constexpr uint32_t kChannelHeaderSize = 24;
constexpr uint32_t kEntryHeaderSize = 28;

enum ContainerState : uint8_t { kAdded = 1, kDeleted = 2, kModified = 3, kUnchanged = 4 };

const char *typeName(int32_t type) {
  if (type == ECI_BIT) return "ECI_BIT";
  if (type == ECI_CHAR) return "ECI_CHAR";
  return "UNKNOWN";
}

// An entry's data must lie inside the reply that announced it. A longer
// claim ends the merge; the rest of the reply is read and dropped, since
// its header still tells where the next message starts.
bool dataFitsReply(SocketBuffer *sockBuffer, const Container *tempCont) {
  if (tempCont->dataLength <= unreadBytes(sockBuffer)) return true;
  TRACE_EXC(3246, "clapi_socketcomms.readChannel Container \"%.16s\" announces %lu data bytes, the reply holds %lu\n",
            tempCont->name, ul(tempCont->dataLength), ul(unreadBytes(sockBuffer)));
  discardBytes(sockBuffer, unreadBytes(sockBuffer));
  markMalformed(sockBuffer);
  return false;
}

// Reads `length` bytes of the reply into `block` and returns how many of
// them arrived: all, unless the reply failed. A failure then clears only
// what was written, so that a reply announcing gigabytes and sending a few
// bytes never makes the client touch gigabytes.
uint32_t readInto(SocketBuffer *sockBuffer, uint8_t *block, uint32_t length) {
  const uint32_t before = unreadBytes(sockBuffer);
  readBytes(sockBuffer, block, length);
  return std::min(length, before - std::min(before, unreadBytes(sockBuffer)));
}

void freeData(uint8_t *data, uint32_t written) {
  explicit_bzero(data, written);
  clapiFree(data);
}

// Reads an entry's data into a new block; null with *rc set when it could
// not be allocated or read whole.
uint8_t *readData(SocketBuffer *sockBuffer, uint32_t length, int point, const char *function, int *rc) {
  auto *data = static_cast<uint8_t *>(clapiMalloc(length, "CDAT"));
  if (data == nullptr) {
    TRACE_EXC(point, "clapi_socketcomms.%s Failed to malloc %lu bytes for container data\n", function, ul(length));
    *rc = QVA_ERR_MALLOCFAIL;
    return nullptr;
  }
  const uint32_t written = readInto(sockBuffer, data, length);
  if (bufferFailed(sockBuffer)) {
    freeData(data, written);
    *rc = sockBuffer->failure;
    return nullptr;
  }
  return data;
}

int addContainer(SocketBuffer *sockBuffer, QvaChannel *channel, Container *tempCont) {
  TRACE_ENTRY(3200, "clapi_socketcomms.addContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n", addr(sockBuffer),
              addr(channel), addr(tempCont));
  int rc = QVA_OK;
  if (tempCont->dataLength != 0) {
    if (!dataFitsReply(sockBuffer, tempCont)) {
      rc = sockBuffer->failure;
    } else {
      tempCont->dataPtr = readData(sockBuffer, tempCont->dataLength, 3238, "addContainer", &rc);
    }
  }
  if (rc == QVA_OK) {
    auto *cont = static_cast<Container *>(clapiMalloc(sizeof(Container), "CONT"));
    if (cont == nullptr) {
      TRACE_EXC(3237, "clapi_socketcomms.addContainer Failed to malloc %d bytes for new container\n",
                static_cast<int>(sizeof(Container)));
      if (tempCont->dataPtr != nullptr) freeData(tempCont->dataPtr, tempCont->dataLength);
      tempCont->dataPtr = nullptr;
      rc = QVA_ERR_MALLOCFAIL;
    } else {
      // A second ADDED entry of the same name makes a second container.
      *cont = *tempCont;
      cont->nextCont = channel->firstCont;
      channel->firstCont = cont;
      ++channel->numContainers;
    }
  }
  TRACE_EXIT(3201, "clapi_socketcomms.addContainer() rc=%d\n", rc);
  return rc;
}

int modifyContainer(SocketBuffer *sockBuffer, QvaChannel *channel, Container *tempCont) {
  TRACE_ENTRY(3205, "clapi_socketcomms.modifyContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n", addr(sockBuffer),
              addr(channel), addr(tempCont));
  int rc = QVA_OK;
  bool apply = false;  // whether the reply's entry replaces the container
  Container *found = findContainer(channel, tempCont->name);
  const uint32_t length = tempCont->dataLength;
  if (found == nullptr) {
    // The entry's data stays unread; the merge ends here.
    TRACE_EXC(3206, "clapi_socketcomms.modifyContainer Container \"%.16s\" not found in channel \"%.16s\"\n",
              tempCont->name, channel->name);
    rc = QVA_ERR_SYSTEM_ERROR;
  } else if (!dataFitsReply(sockBuffer, tempCont)) {
    rc = sockBuffer->failure;
  } else if (length == found->dataLength) {
    // The same length rewrites the data in place. It arrives in a block of
    // its own first, so that a reply cut short leaves the old data whole.
    tempCont->dataPtr = found->dataPtr;
    uint8_t *fresh = length != 0 ? readData(sockBuffer, length, 3235, "modifyContainer", &rc) : nullptr;
    if (fresh != nullptr) {
      std::memcpy(found->dataPtr, fresh, length);
      freeData(fresh, length);
    }
    apply = rc == QVA_OK;
  } else {
    // A block of the new length (of 0 bytes too), filled before the old
    // block goes; the trace still announces the old block's release first.
    auto *fresh = static_cast<uint8_t *>(clapiMalloc(length, "CDAT"));
    if (found->dataPtr != nullptr) {
      TRACE_DEBUG(3239, "clapi_socketcomms.modifyContainer Freeing %lu bytes of container data (%p)\n",
                  ul(found->dataLength), addr(found->dataPtr));
    }
    if (fresh == nullptr) {
      // Out of memory the container is left empty.
      int freeRc = found->dataPtr != nullptr ? freeContainerData(found) : 0;
      found->dataLength = 0;
      rc = freeRc;
      if (rc == QVA_OK) {
        TRACE_EXC(3235, "clapi_socketcomms.modifyContainer Failed to malloc %lu bytes for container data\n",
                  ul(length));
        rc = QVA_ERR_MALLOCFAIL;
      }
    } else {
      const uint32_t written = length != 0 ? readInto(sockBuffer, fresh, length) : 0;
      if (bufferFailed(sockBuffer)) {
        freeData(fresh, written);
        rc = sockBuffer->failure;
      } else {
        if (found->dataPtr != nullptr) rc = freeContainerData(found);
        tempCont->dataPtr = fresh;
        apply = true;
      }
    }
  }
  if (apply) {
    // Name, CCSID, type, data address and length all come from the reply.
    Container *next = found->nextCont;
    *found = *tempCont;
    found->nextCont = next;
  }
  TRACE_EXIT(3207, "clapi_socketcomms.modifyContainer() rc=%d\n", rc);
  return rc;
}

int deleteContainer(QvaChannel *channel, const char *name) {
  TRACE_ENTRY(3202, "clapi_socketcomms.deleteContainer(channel=%p, name=\"%.16s\")\n", addr(channel), name);
  int rc = QVA_OK;
  Container *predecessor = nullptr;
  Container *found = findContainer(channel, name, &predecessor);
  if (found == nullptr) {
    TRACE_EXC(3203, "clapi_socketcomms.deleteContainer Container \"%.16s\" not found in channel \"%.16s\"\n", name,
              channel->name);
    rc = QVA_ERR_SYSTEM_ERROR;
  } else {
    // A walk's cursor on it steps back, as ECI_deleteContainer has it,
    // rather than be left on freed memory.
    unlinkContainer(channel, found, predecessor);
    if (found->dataPtr != nullptr) rc = freeContainerData(found);
    if (freeRecord(found, sizeof(Container)) != 0) rc = QVA_ERR_SYSTEM_ERROR;
    --channel->numContainers;
  }
  TRACE_EXIT(3204, "clapi_socketcomms.deleteContainer() rc=%d\n", rc);
  return rc;
}

}  // namespace

uint64_t channelWireSize(const QvaChannel *channel) {
  uint64_t size = kChannelHeaderSize;
  for (const Container *cont = channel->firstCont; cont != nullptr; cont = cont->nextCont) {
    size += kEntryHeaderSize + uint64_t{cont->dataLength};
  }
  return size;
}

void writeChannel(SocketBuffer *sockBuffer, QvaChannel *channel) {
  TRACE_ENTRY(3244, "clapi_socketcomms.writeChannel(sockBuffer=%p, channel=%p)\n", addr(sockBuffer), addr(channel));
  writeBytes(sockBuffer, channel->name, kNameSize);
  writeInt(sockBuffer, channel->ccsid);
  writeInt(sockBuffer, channel->numContainers);
  for (const Container *cont = channel->firstCont; cont != nullptr; cont = cont->nextCont) {
    writeBytes(sockBuffer, cont->name, kNameSize);
    writeByte(sockBuffer, kAdded);  // every container of a request travels as ADDED
    writeByte(sockBuffer, 0);
    writeByte(sockBuffer, 0);
    writeByte(sockBuffer, static_cast<uint8_t>(cont->type));
    writeInt(sockBuffer, cont->ccsid);
    writeInt(sockBuffer, static_cast<int32_t>(cont->dataLength));
    writeBytes(sockBuffer, cont->dataPtr, cont->dataLength);
  }
  TRACE_EXIT(3245, "clapi_socketcomms.writeChannel()\n");
}

int readChannel(SocketBuffer *sockBuffer, QvaChannel *channel) {
  TRACE_ENTRY(3230, "clapi_socketcomms.readChannel(sockBuffer=%p, channel=%p)\n", addr(sockBuffer), addr(channel));
  // The reply may rename the channel and change its CCSID; both are taken
  // only once they have arrived whole.
  char name[kNameSize];
  readBytes(sockBuffer, name, kNameSize);
  const int32_t ccsid = readInt(sockBuffer);
  const int32_t entries = readInt(sockBuffer);
  int rc = QVA_OK;
  if (bufferFailed(sockBuffer)) {
    rc = sockBuffer->failure;
  } else {
    std::memcpy(channel->name, name, kNameSize);
    channel->ccsid = ccsid;
    // numContainers follows the entries applied, not this count.
    TRACE_DEBUG(3231, "clapi_socketcomms.readChannel Return flow contains %d containers in channel \"%.16s\"\n",
                entries, channel->name);
  }
  for (int32_t i = 0; i < entries && rc == QVA_OK; ++i) {
    Container tempCont{};
    std::memcpy(tempCont.eyecatcher, "QVACONTA", 8);
    readBytes(sockBuffer, tempCont.name, kNameSize);
    const uint8_t state = readByte(sockBuffer);
    readByte(sockBuffer);
    readByte(sockBuffer);
    tempCont.type = readByte(sockBuffer);
    tempCont.ccsid = readInt(sockBuffer);
    tempCont.dataLength = static_cast<uint32_t>(readInt(sockBuffer));
    if (bufferFailed(sockBuffer)) {
      rc = sockBuffer->failure;
      break;
    }
    switch (state) {
      case kAdded:
        TRACE_EVENT(3232,
                    "clapi_socketcomms.readChannel Container \"%.16s\" ADDED in VESK, type=%s, CCSID=%d, data "
                    "length=%lu\n",
                    tempCont.name, typeName(tempCont.type), tempCont.ccsid, ul(tempCont.dataLength));
        rc = addContainer(sockBuffer, channel, &tempCont);
        break;
      case kDeleted:
        TRACE_EVENT(3233, "clapi_socketcomms.readChannel Container \"%.16s\" DELETED in VESK\n", tempCont.name);
        rc = deleteContainer(channel, tempCont.name);
        break;
      case kModified:
        TRACE_EVENT(3234, "clapi_socketcomms.readChannel Container \"%.16s\" MODIFIED in VESK, new length=%lu\n",
                    tempCont.name, ul(tempCont.dataLength));
        rc = modifyContainer(sockBuffer, channel, &tempCont);
        break;
      case kUnchanged:
        TRACE_EVENT(3235, "clapi_socketcomms.readChannel Container \"%.16s\" is UNCHANGED\n", tempCont.name);
        break;
      default:
        break;  // an unknown state is passed over without a word
    }
  }
  TRACE_EXIT(3236, "clapi_socketcomms.readChannel() rc=%d\n", rc);
  return rc;
}
