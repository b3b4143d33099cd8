// The application's operations on the containers of one channel: create,
// set and get data, describe, walk and delete.

#include <cstring>

#include "clapi_channel.h"
#include "clapi_diag.h"

#if defined(__SANITIZE_ADDRESS__)
#define QVA_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QVA_LEAK_CHECKED 1
#endif
#endif
#ifdef QVA_LEAK_CHECKED
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// A block the library leaves allocated on purpose; the leak checker of a
// sanitizer build is told so, and reports every other.
void keptOnPurpose([[maybe_unused]] const void *block) {
#ifdef QVA_LEAK_CHECKED
  __lsan_ignore_object(block);
#endif
}

const char *printable(const char *name) { return name != nullptr ? name : "NULL"; }

// The steps every named operation shares after its own argument tests: the
// name rule, the channel test and the search. On 0 the channel's lock is
// held by `held` and *found is the container.
int findNamed(HeldChannel &held, QvaChannel *chanTok, const char *name, const char *operation, int notChannelPoint,
              int notFoundPoint, Container **found, Container **predecessor = nullptr) {
  int rc = validateName(name);
  if (rc != 0) return rc;
  if (!held.acquire(chanTok)) {
    TRACE_EXC(notChannelPoint, "API.%s chanTok (%p) is not a channel\n", operation, addr(chanTok));
    return ECI_ERR_INVALID_CHANNEL;
  }
  *found = findContainer(chanTok, name, predecessor);
  if (*found == nullptr) {
    TRACE_EXC(notFoundPoint, "API.%s Container \"%.16s\" does not exist in channel \"%.16s\"\n", operation, name,
              chanTok->name);
    held.release();
    return ECI_ERR_CONTAINER_NOTFOUND;
  }
  return 0;
}

void fillInfo(ContainerInfo *info, const Container *cont) {
  std::memset(info, 0, sizeof *info);
  std::memcpy(info->name, cont->name, kNameSize);
  info->type = static_cast<uint32_t>(cont->type);
  info->dataLength = cont->dataLength;
  // An ECI_BIT container always reports CCSID 0.
  if (cont->type == ECI_CHAR) info->ccsid = static_cast<uint32_t>(cont->ccsid);
}

// Decides the CCSID of a new ECI_CHAR container and, the first time, the
// channel's. A container may keep a CCSID other than its channel's.
void decideCcsid(QvaChannel *channel, Container *cont, int32_t ccsid) {
  if (ccsid != 0) {
    if (channel->ccsid == -1) {
      channel->ccsid = ccsid;
      TRACE_EVENT(1450, "API.ECI_createContainer Channel CCSID set to %d from Container\n", ccsid);
    }
    cont->ccsid = ccsid;
  } else {
    if (channel->ccsid == -1) {
      int32_t current = 0;
      getCurrentCcsid(&current);
      channel->ccsid = current;
      TRACE_EVENT(1355, "API.ECI_createContainer Channel CCSID set to %d from locale\n", current);
    }
    cont->ccsid = channel->ccsid;
  }
  TRACE_EVENT(1354, "API.ECI_createContainer Container CCSID set to %d\n", cont->ccsid);
}

}  // namespace

int ECI_createContainer(QvaChannel *chanTok, const char *name, int32_t type, int32_t ccsid, const void *data,
                        uint32_t dataLength) {
  int rc = channelInit();
  TRACE_ENTRY(1345, "API.ECI_createContainer(chanTok=%p, name=%s, type=%d, ccsid=%d, data=%p, dataLength=%lu)\n",
              addr(chanTok), printable(name), type, ccsid, data, ul(dataLength));
  HeldChannel held;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1346, "API.ECI_createContainer chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (type != ECI_BIT && type != ECI_CHAR) {
      TRACE_EXC(1347, "API.ECI_createContainer type is invalid (%d)\n", type);
      rc = ECI_ERR_INVALID_TYPE;
    } else if (data == nullptr && dataLength != 0) {
      rc = ECI_ERR_INVALID_DATA_LENGTH;  // no line of its own
    } else {
      rc = validateName(name);
    }
  }
  if (rc == 0) {
    if (!held.acquire(chanTok)) {
      TRACE_EXC(1348, "API.ECI_createContainer chanTok (%p) is not a channel\n", addr(chanTok));
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (findContainer(chanTok, name) != nullptr) {
      TRACE_EXC(1349, "API.ECI_createContainer Container \"%.16s\" already exists in channel \"%.16s\"\n", name,
                chanTok->name);
      rc = ECI_ERR_CONTAINER_EXISTS;
    }
  }
  Container *cont = nullptr;
  if (rc == 0) {
    cont = static_cast<Container *>(clapiMalloc(sizeof(Container), "CONT"));
    if (cont == nullptr) {
      TRACE_EXC(1350, "API.ECI_createContainer Failed to malloc %d bytes for container\n",
                static_cast<int>(sizeof(Container)));
      rc = ECI_ERR_MEMORY_SHORTAGE;
    }
  }
  if (rc == 0) {
    std::memset(cont, 0, sizeof *cont);
    std::memcpy(cont->eyecatcher, "QVACONTA", 8);
    copyName(cont->name, name);
    cont->type = type;
    if (type == ECI_CHAR) decideCcsid(chanTok, cont, ccsid);
    if (dataLength != 0) {
      cont->dataPtr = static_cast<uint8_t *>(clapiMalloc(dataLength, "CDAT"));
      if (cont->dataPtr == nullptr) {
        TRACE_EXC(1351, "API.ECI_createContainer Failed to malloc %lu bytes for container data\n", ul(dataLength));
        // A channel CCSID decided above stays decided.
        freeRecord(cont, sizeof(Container));
        rc = ECI_ERR_MEMORY_SHORTAGE;
      } else {
        TRACE_DEBUG(1352, "API.ECI_createContainer Copied %ld bytes of container data into API storage (%p)\n",
                    static_cast<long>(dataLength), addr(cont->dataPtr));
        std::memcpy(cont->dataPtr, data, dataLength);
        cont->dataLength = dataLength;
      }
    }
  }
  if (rc == 0) {
    cont->nextCont = chanTok->firstCont;
    chanTok->firstCont = cont;
    ++chanTok->numContainers;
    TRACE_EVENT(1353, "API.ECI_createContainer Created container \"%.16s\" (%p) in channel \"%.16s\" (%p)\n",
                cont->name, addr(cont), chanTok->name, addr(chanTok));
  }
  held.release();
  traceChannelExit(1359, "API.ECI_createContainer", rc);
  return rc;
}

int ECI_setContainerData(QvaChannel *chanTok, const char *name, const void *data, uint32_t dataLength) {
  int rc = channelInit();
  TRACE_ENTRY(1390, "API.ECI_setContainerData(chanTok=%p, name=%s, data=%p, dataLength=%lu)\n", addr(chanTok),
              printable(name), data, ul(dataLength));
  HeldChannel held;
  Container *cont = nullptr;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1391, "API.ECI_setContainerData chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (data == nullptr && dataLength != 0) {
      TRACE_EXC(1392, "API.ECI_setContainerData data is NULL when dataLength is %lu\n", ul(dataLength));
      rc = ECI_ERR_INVALID_DATA_LENGTH;
    } else {
      rc = findNamed(held, chanTok, name, "ECI_setContainerData", 1393, 1394, &cont);
    }
  }
  if (rc == 0) {
    // Lengths alone are compared: with the same length the old block is
    // neither cleared nor freed, and the fresh block below takes its place,
    // so the old one stays allocated for the life of the process. Kept so.
    if (cont->dataLength != dataLength && cont->dataPtr != nullptr) {
      TRACE_DEBUG(1395, "API.ECI_setContainerData Freeing %lu bytes of container data (%p)\n", ul(cont->dataLength),
                  addr(cont->dataPtr));
      if (freeContainerData(cont) != 0) rc = ECI_ERR_SYSTEM_ERROR;
      cont->dataLength = 0;
    }
    if (dataLength != 0 && rc == 0) {
      if (cont->dataPtr != nullptr) keptOnPurpose(cont->dataPtr);
      cont->dataPtr = static_cast<uint8_t *>(clapiMalloc(dataLength, "CDAT"));
      if (cont->dataPtr != nullptr) {
        std::memcpy(cont->dataPtr, data, dataLength);
        cont->dataLength = dataLength;
      } else {
        TRACE_EXC(1396, "API.ECI_setContainerData Failed to malloc %lu bytes for container data\n", ul(dataLength));
        cont->dataLength = 0;
        rc = ECI_ERR_MEMORY_SHORTAGE;
      }
    }
  }
  held.release();
  traceChannelExit(1399, "API.ECI_setContainerData", rc);
  return rc;
}

int ECI_getContainerData(QvaChannel *chanTok, const char *name, void *buffer, uint32_t length, uint32_t offset,
                         uint32_t *bytesReadPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1380,
              "API.ECI_getContainerData(chanTok=%p, name=%s, buffer=%p, length=%lu, offset=%lu, bytesReadPtr=%p)\n",
              addr(chanTok), printable(name), buffer, ul(length), ul(offset), addr(bytesReadPtr));
  HeldChannel held;
  Container *cont = nullptr;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1381, "API.ECI_getContainerData chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (buffer == nullptr) {
      TRACE_EXC(1382, "API.ECI_getContainerData buffer is NULL\n");
      rc = ECI_ERR_NULLPTR;
    } else {
      rc = findNamed(held, chanTok, name, "ECI_getContainerData", 1383, 1384, &cont);
    }
  }
  if (rc == 0) {
    // At most the bytes from offset to the end. Worked out without the sum
    // offset + length, which would wrap at 2^32 and let a huge length read
    // past the data.
    const uint32_t total = cont->dataLength;
    uint32_t count = 0;
    if (total > offset) count = length < total - offset ? length : total - offset;
    if (count != 0) {
      std::memcpy(buffer, cont->dataPtr + offset, count);
      TRACE_DEBUG(1385, "API.ECI_getContainerData Copied %lu bytes into %p\n", ul(count), buffer);
    } else {
      TRACE_DEBUG(1386, "API.ECI_getContainerData No data to copy\n");
    }
    if (bytesReadPtr != nullptr) *bytesReadPtr = count;
  }
  held.release();
  traceChannelExit(1389, "API.ECI_getContainerData", rc);
  return rc;
}

int ECI_getContainerInfo(QvaChannel *chanTok, const char *name, ContainerInfo *infoPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1370, "API.ECI_getContainerInfo(chanTok=%p, name=%s, infoPtr=%p)\n", addr(chanTok), printable(name),
              addr(infoPtr));
  HeldChannel held;
  Container *cont = nullptr;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1371, "API.ECI_getContainerInfo chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (infoPtr == nullptr) {
      TRACE_EXC(1372, "API.ECI_getContainerInfo infoPtr is NULL\n");
      rc = ECI_ERR_NULLINFOPTR;
    } else {
      rc = findNamed(held, chanTok, name, "ECI_getContainerInfo", 1373, 1374, &cont);
    }
  }
  if (rc == 0) fillInfo(infoPtr, cont);
  held.release();
  traceChannelExit(1379, "API.ECI_getContainerInfo", rc);
  return rc;
}

int ECI_getFirstContainer(QvaChannel *chanTok, ContainerInfo *infoPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1325, "API.ECI_getFirstContainer(chanTok=%p, infoPtr=%p)\n", addr(chanTok), addr(infoPtr));
  HeldChannel held;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1326, "API.ECI_getFirstContainer chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (infoPtr == nullptr) {
      TRACE_EXC(1327, "API.ECI_getFirstContainer infoPtr is NULL\n");
      rc = ECI_ERR_NULLINFOPTR;
    } else if (!held.acquire(chanTok)) {
      TRACE_EXC(1328, "API.ECI_getFirstContainer chanTok (%p) is not a channel\n", addr(chanTok));
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (chanTok->firstCont == nullptr) {
      // The cursor is left where it was.
      TRACE_DEBUG(1329, "API.ECI_getFirstContainer Channel \"%.16s\" has no containers\n", chanTok->name);
      rc = ECI_ERR_ENDOFCONTAINERS;
    } else {
      chanTok->currentCont = chanTok->firstCont;
      TRACE_DEBUG(1330, "API.ECI_getFirstContainer Current container is \"%.16s\"\n", chanTok->currentCont->name);
      fillInfo(infoPtr, chanTok->currentCont);
    }
  }
  held.release();
  traceChannelExit(1334, "API.ECI_getFirstContainer", rc);
  return rc;
}

int ECI_getNextContainer(QvaChannel *chanTok, ContainerInfo *infoPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1335, "API.ECI_getNextContainer(chanTok=%p, infoPtr=%p)\n", addr(chanTok), addr(infoPtr));
  HeldChannel held;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1336, "API.ECI_getNextContainer chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (infoPtr == nullptr) {
      TRACE_EXC(1337, "API.ECI_getNextContainer infoPtr is NULL\n");
      rc = ECI_ERR_NULLINFOPTR;
    } else if (!held.acquire(chanTok)) {
      TRACE_EXC(1338, "API.ECI_getNextContainer chanTok (%p) is not a channel\n", addr(chanTok));
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (chanTok->currentCont != nullptr) {
      // The cursor moves on; past the end it is NULL, so the next call
      // starts the walk again.
      chanTok->currentCont = chanTok->currentCont->nextCont;
      if (chanTok->currentCont == nullptr) {
        TRACE_DEBUG(1341, "API.ECI_getNextContainer No more containers in channel \"%.16s\"\n", chanTok->name);
        rc = ECI_ERR_ENDOFCONTAINERS;
      }
    } else if (chanTok->firstCont == nullptr) {
      TRACE_DEBUG(1339, "API.ECI_getNextContainer Channel \"%.16s\" has no containers\n", chanTok->name);
      rc = ECI_ERR_ENDOFCONTAINERS;
    } else {
      TRACE_DEBUG(1340, "API.ECI_getNextContainer Current container is NULL, retrieving first container\n");
      chanTok->currentCont = chanTok->firstCont;
    }
    if (rc == 0) {
      TRACE_DEBUG(1342, "API.ECI_getNextContainer Current container is \"%.16s\"\n", chanTok->currentCont->name);
      fillInfo(infoPtr, chanTok->currentCont);
    }
  }
  held.release();
  traceChannelExit(1344, "API.ECI_getNextContainer", rc);
  return rc;
}

int ECI_deleteContainer(QvaChannel *chanTok, const char *name) {
  int rc = channelInit();
  TRACE_ENTRY(1360, "API.ECI_deleteContainer(chanTok=%p, name=%s)\n", addr(chanTok), printable(name));
  HeldChannel held;
  Container *cont = nullptr;
  Container *predecessor = nullptr;
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1361, "API.ECI_deleteContainer chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else {
      rc = findNamed(held, chanTok, name, "ECI_deleteContainer", 1362, 1363, &cont, &predecessor);
    }
  }
  if (rc == 0) {
    const bool cursorOnIt = chanTok->currentCont == cont;
    unlinkContainer(chanTok, cont, predecessor);
    // The cursor steps back, so the next ECI_getNextContainer returns the
    // container that followed the deleted one.
    if (cursorOnIt && predecessor != nullptr) {
      TRACE_DEBUG(1366, "API.ECI_deleteContainer Current container is now \"%.16s\"\n", predecessor->name);
    } else if (cursorOnIt) {
      TRACE_DEBUG(1366, "API.ECI_deleteContainer Current container is now NULL\n");
    }
    char savedName[kNameSize];
    std::memcpy(savedName, cont->name, kNameSize);
    if (cont->dataPtr != nullptr) {
      TRACE_DEBUG(1364, "API.ECI_deleteContainer Freeing %lu bytes of container data (%p)\n", ul(cont->dataLength),
                  addr(cont->dataPtr));
      if (freeContainerData(cont) != 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    if (freeRecord(cont, sizeof(Container)) != 0) rc = ECI_ERR_SYSTEM_ERROR;
    --chanTok->numContainers;
    TRACE_EVENT(1365, "API.ECI_deleteContainer Deleted container \"%.16s\" (%p)\n", savedName, addr(cont));
  }
  held.release();
  traceChannelExit(1369, "API.ECI_deleteContainer", rc);
  return rc;
}
