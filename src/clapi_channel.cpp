// The channel registry: one-time set-up, the name rule, channel create,
// name, delete, delete-all and dump, and code page detection.

#include "clapi_channel.h"

#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "clapi_diag.h"
#include "clapi_impl.h"

QvaChannel *chanList = nullptr;
int32_t chanListState = 0;
ClapiLock chanListLock;

namespace {

// Guards the registry's links for the liveness test of a token, beside
// chanListLock: it writes no trace lines and is never held while another
// lock is requested, so it stays out of the traced lock order.
std::mutex registryLinks;

constexpr std::string_view kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789<>$@#/%&?!:|\\\"=';.-_";
static_assert(kNameCharacters.size() == 82);

// Frees every container of the channel, tracing each under the caller's
// function name; false when a free reported a damaged block.
bool freeContainers(QvaChannel *channel, const char *caller, int debugPoint, int eventPoint) {
  bool intact = true;
  Container *cont = channel->firstCont;
  while (cont != nullptr) {
    Container *next = cont->nextCont;
    char name[kNameSize];
    std::memcpy(name, cont->name, kNameSize);
    if (cont->dataPtr != nullptr) {
      TRACE_DEBUG(debugPoint, "API.%s Freeing %lu bytes of container data (%p)\n", caller, ul(cont->dataLength),
                  addr(cont->dataPtr));
      if (freeContainerData(cont) != 0) intact = false;
    }
    if (freeRecord(cont, sizeof(Container)) != 0) intact = false;
    TRACE_EVENT(eventPoint, "API.%s Deleted container \"%.16s\" (%p)\n", caller, name, addr(cont));
    cont = next;
  }
  channel->firstCont = nullptr;
  channel->currentCont = nullptr;
  channel->numContainers = 0;
  return intact;
}

}  // namespace

void traceChannelExit(int point, const char *function, int rc) {
  TRACE_EXIT(point, "%s() rc=%d (%s)\n", function, rc, getRcString(rc));
}

// ---- Shared helpers ------------------------------------------------------------

const char *getRcString(int rc) {
  // The codes the channel and container operations return; -57 has no name.
  static constexpr struct {
    int rc;
    const char *name;
  } kNames[] = {
      {ECI_NO_ERROR, "ECI_NO_ERROR"},
      {ECI_ERR_INVALID_DATA_LENGTH, "ECI_ERR_INVALID_DATA_LENGTH"},
      {ECI_ERR_SYSTEM_ERROR, "ECI_ERR_SYSTEM_ERROR"},
      {ECI_ERR_INVALID_CHANNEL, "ECI_ERR_INVALID_CHANNEL"},
      {ECI_ERR_INVALID_NAME, "ECI_ERR_INVALID_NAME"},
      {ECI_ERR_NULLCHANNELPTR, "ECI_ERR_NULLCHANNELPTR"},
      {ECI_ERR_CHANNELLOCKFAIL, "ECI_ERR_CHANNELLOCKFAIL"},
      {ECI_ERR_ENDOFCONTAINERS, "ECI_ERR_ENDOFCONTAINERS"},
      {ECI_ERR_NULLINFOPTR, "ECI_ERR_NULLINFOPTR"},
      {ECI_ERR_INVALID_TYPE, "ECI_ERR_INVALID_TYPE"},
      {ECI_ERR_CONTAINER_NOTFOUND, "ECI_ERR_CONTAINER_NOTFOUND"},
      {ECI_ERR_CONTAINER_EXISTS, "ECI_ERR_CONTAINER_EXISTS"},
      {ECI_ERR_COMMAREA_AND_CHANNEL, "ECI_ERR_COMMAREA_AND_CHANNEL"},
      {ECI_ERR_NULLPTR, "ECI_ERR_NULLPTR"},
      {ECI_ERR_MEMORY_SHORTAGE, "ECI_ERR_MEMORY_SHORTAGE"},
      {ECI_ERR_LOCKFAIL, "ECI_ERR_LOCKFAIL"},
  };
  for (const auto &entry : kNames) {
    if (entry.rc == rc) return entry.name;
  }
  return "UNKNOWN";
}

int channelInit() {
  // Read without a lock: a thread that sees 0 repeats the guarded set-up,
  // which then finds the lock initialised.
  if (std::atomic_ref<int32_t>(chanListState).load(std::memory_order_acquire) != 0) return 0;
  int rc = clapiInit();
  TRACE_ENTRY(1405, "clapi_channel.channelInit()\n");
  if (rc == 0) {
    // The trace lock doubles as the guard of this one-time set-up.
    LockHolder trace(&traceLock);
    int lockRc = clapiInitializeLock(&chanListLock);
    if (lockRc == kLockOk) {
      std::atomic_ref<int32_t>(chanListState).store(1, std::memory_order_release);
    } else if (lockRc != kLockAlreadyInitialized) {
      rc = ECI_ERR_LOCKFAIL;
    }
  }
  TRACE_EXIT(1406, "clapi_channel.channelInit() rc=%d (%s)\n", rc, getRcString(rc));
  return rc;
}

int validateName(const char *name) {
  TRACE_ENTRY(1400, "clapi_channel.validateName(name=%s)\n", name != nullptr ? name : "NULL");
  int rc = ECI_NO_ERROR;
  if (name == nullptr) {
    TRACE_EXC(1401, "clapi_channel.validateName name is NULL\n");
    rc = ECI_ERR_INVALID_NAME;
  } else if (name[0] == '\0') {
    TRACE_EXC(1407, "clapi_channel.validateName name is zero length\n");
    rc = ECI_ERR_INVALID_NAME;
  } else {
    for (int i = 0; name[i] != '\0'; ++i) {
      if (i == kNameSize) {
        TRACE_EXC(1402, "clapi_channel.validateName name length exceeds %d\n", kNameSize);
        rc = ECI_ERR_INVALID_NAME;
        break;
      }
      if (kNameCharacters.find(name[i]) == std::string_view::npos) {
        TRACE_EXC(1403, "clapi_channel.validateName name contains invalid character '%c'\n", name[i]);
        rc = ECI_ERR_INVALID_NAME;
        break;
      }
    }
  }
  TRACE_EXIT(1404, "clapi_channel.validateName() rc=%d (%s)\n", rc, getRcString(rc));
  return rc;
}

int lockChannel(QvaChannel *chanTok) {
  // A token the application kept after deleting its channel points at freed
  // memory, so it is looked up before anything reads it. The lookup and the
  // lock request are two steps: deleting a channel while another thread
  // still uses it remains the application's error.
  bool live = false;
  {
    std::lock_guard<std::mutex> links(registryLinks);
    for (QvaChannel *ch = chanList; ch != nullptr && !live; ch = ch->nextChannel) live = ch == chanTok;
  }
  if (!live) return kLockNotInitialized;
  return clapiRequestLock(&chanTok->lock);
}

Container *findContainer(QvaChannel *channel, const char *name, Container **predecessor) {
  Container *before = nullptr;
  for (Container *cont = channel->firstCont; cont != nullptr; cont = cont->nextCont) {
    if (std::strncmp(cont->name, name, kNameSize) == 0) {
      if (predecessor != nullptr) *predecessor = before;
      return cont;
    }
    before = cont;
  }
  return nullptr;
}

void unlinkContainer(QvaChannel *channel, Container *container, Container *predecessor) {
  if (predecessor == nullptr) {
    channel->firstCont = container->nextCont;
  } else {
    predecessor->nextCont = container->nextCont;
  }
  if (channel->currentCont == container) channel->currentCont = predecessor;
}

int freeContainerData(Container *container) {
  explicit_bzero(container->dataPtr, container->dataLength);
  int rc = clapiFree(container->dataPtr);
  container->dataPtr = nullptr;
  return rc;
}

int freeRecord(void *record, uint32_t size) {
  explicit_bzero(record, size);
  return clapiFree(record);
}

// ---- Channels ------------------------------------------------------------------

int ECI_createChannel(const char *name, QvaChannel **tokPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1300, "API.ECI_createChannel(name=%s, tokPtr=%p)\n", name != nullptr ? name : "NULL", addr(tokPtr));
  if (rc == 0) {
    if (tokPtr == nullptr) {
      TRACE_EXC(1301, "API.ECI_createChannel tokPtr is NULL\n");
      rc = ECI_ERR_NULLCHANNELPTR;
    } else {
      rc = validateName(name);
    }
  }
  QvaChannel *channel = nullptr;
  if (rc == 0) {
    channel = static_cast<QvaChannel *>(clapiMalloc(sizeof(QvaChannel), "CHAN"));
    if (channel == nullptr) {
      TRACE_EXC(1302, "API.ECI_createChannel Failed to malloc %d bytes for channel\n",
                static_cast<int>(sizeof(QvaChannel)));
      rc = ECI_ERR_MEMORY_SHORTAGE;
    }
  }
  if (rc == 0) {
    std::memset(channel, 0, sizeof *channel);
    std::memcpy(channel->eyecatcher, "QVACHANN", 8);
    copyName(channel->name, name);
    channel->ccsid = -1;
    if (clapiInitializeLock(&channel->lock) != kLockOk) {
      TRACE_EXC(1303, "API.ECI_createChannel Failed to initialize channel lock\n");
      freeRecord(channel, sizeof(QvaChannel));
      rc = ECI_ERR_CHANNELLOCKFAIL;
    }
  }
  if (rc == 0) {
    TRACE_EVENT(1304, "API.ECI_createChannel New channel \"%.16s\" created (%p)\n", name, addr(channel));
    {
      LockHolder list(&chanListLock);
      std::lock_guard<std::mutex> links(registryLinks);
      channel->nextChannel = chanList;
      chanList = channel;
    }
    *tokPtr = channel;
  }
  traceChannelExit(1309, "API.ECI_createChannel", rc);
  return rc;
}

int ECI_getChannelName(QvaChannel *chanTok, char *nameBuffer) {
  int rc = channelInit();
  TRACE_ENTRY(1320, "API.ECI_getChannelName(chanTok=%p, nameBuffer=%p)\n", addr(chanTok), addr(nameBuffer));
  if (rc == 0) {
    if (chanTok == nullptr) {
      TRACE_EXC(1321, "API.ECI_getChannelName chanTok is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (nameBuffer == nullptr) {
      TRACE_EXC(1322, "API.ECI_getChannelName nameBuffer is NULL\n");
      rc = ECI_ERR_NULLPTR;
    } else if (lockChannel(chanTok) != kLockOk) {
      TRACE_EXC(1323, "API.ECI_getChannelName chanTok (%p) is not a channel\n", addr(chanTok));
      rc = ECI_ERR_INVALID_CHANNEL;
    } else {
      std::memset(nameBuffer, 0, kNameSize + 1);
      std::memcpy(nameBuffer, chanTok->name, kNameSize);
      clapiReleaseLock(&chanTok->lock);
    }
  }
  traceChannelExit(1324, "API.ECI_getChannelName", rc);
  return rc;
}

int ECI_deleteChannel(QvaChannel **tokPtr) {
  int rc = channelInit();
  TRACE_ENTRY(1310, "API.ECI_deleteChannel(tokPtr=%p)\n", addr(tokPtr));
  QvaChannel *channel = nullptr;
  if (rc == 0) {
    if (tokPtr == nullptr) {
      TRACE_EXC(1311, "API.ECI_deleteChannel tokPtr is NULL\n");
      rc = ECI_ERR_NULLCHANNELPTR;
    } else if (*tokPtr == nullptr) {
      TRACE_EXC(1312, "API.ECI_deleteChannel *tokPtr is NULL\n");
      rc = ECI_ERR_INVALID_CHANNEL;
    } else if (lockChannel(*tokPtr) != kLockOk) {
      TRACE_EXC(1313, "API.ECI_deleteChannel *tokPtr (%p) is not a channel\n", addr(*tokPtr));
      rc = ECI_ERR_INVALID_CHANNEL;
    } else {
      channel = *tokPtr;
    }
  }
  if (channel != nullptr) {
    {
      LockHolder list(&chanListLock);
      std::lock_guard<std::mutex> links(registryLinks);
      QvaChannel **link = &chanList;
      while (*link != channel) link = &(*link)->nextChannel;
      *link = channel->nextChannel;
    }
    if (!freeContainers(channel, "ECI_deleteChannel", 1420, 1421)) rc = ECI_ERR_SYSTEM_ERROR;
    char name[kNameSize];
    std::memcpy(name, channel->name, kNameSize);
    clapiReleaseLock(&channel->lock);
    TRACE_DEBUG(1423, "API.ECI_deleteChannel Released lock for channel %p, now deleting\n", addr(channel));
    clapiDestroyLock(&channel->lock);
    if (freeRecord(channel, sizeof(QvaChannel)) != 0) rc = ECI_ERR_SYSTEM_ERROR;
    TRACE_EVENT(1422, "API.ECI_deleteChannel Deleted channel \"%.16s\" (%p)\n", name, addr(channel));
    *tokPtr = nullptr;
  }
  traceChannelExit(1314, "API.ECI_deleteChannel", rc);
  return rc;
}

int ECI_deleteAllChannels(void) {
  int rc = channelInit();
  TRACE_ENTRY(1425, "API.ECI_deleteAllChannels()\n");
  if (rc == 0) {
    LockHolder list(&chanListLock);
    while (chanList != nullptr) {
      QvaChannel *channel = chanList;
      TRACE_DEBUG(1426, "API.ECI_deleteAllChannels Destroying lock for channel \"%.16s\" (%p)\n", channel->name,
                  addr(channel));
      clapiDestroyLock(&channel->lock);
      if (!freeContainers(channel, "ECI_deleteAllChannels", 1427, 1428)) rc = ECI_ERR_SYSTEM_ERROR;
      char name[kNameSize];
      std::memcpy(name, channel->name, kNameSize);
      {
        std::lock_guard<std::mutex> links(registryLinks);
        chanList = channel->nextChannel;
      }
      if (freeRecord(channel, sizeof(QvaChannel)) != 0) rc = ECI_ERR_SYSTEM_ERROR;
      TRACE_EVENT(1429, "API.ECI_deleteAllChannels Deleted channel \"%.16s\" (%p)\n", name, addr(channel));
    }
  }
  traceChannelExit(1430, "API.ECI_deleteAllChannels", rc);
  return rc;
}

int QVA_ECI_dumpChannels(void) {
  int rc = channelInit();
  TRACE_ENTRY(1410, "API.QVA_ECI_dumpChannels()\n");
  if (rc == 0) {
    static constexpr char kDashes[] =
        "--------------------------------------------------------------------------------\n";
    LockHolder list(&chanListLock);
    LockHolder trace(&traceLock);
    clapiTraceRaw("Channel and container dump\n");
    clapiTraceRaw("%s", kDashes);
    if (chanList == nullptr) {
      clapiTraceRaw("The channel list is EMPTY\n");
    } else {
      // Long enough for a channel line with 64-bit addresses and a 16-byte name.
      char text[320];
      int channels = 0;
      for (QvaChannel *ch = chanList; ch != nullptr; ch = ch->nextChannel) {
        ++channels;
        std::snprintf(text, sizeof text,
                      "Channel(%p): eyecatcher(%8.8s) name(%16.16s) lock(%p) ccsid(%d) numContainers(%d) "
                      "nextChannel(%p) firstCont(%p) currentCont(%p)",
                      addr(ch), ch->eyecatcher, ch->name, addr(&ch->lock), ch->ccsid, ch->numContainers,
                      addr(ch->nextChannel), addr(ch->firstCont), addr(ch->currentCont));
        clapiTraceRaw("Channel list entry -%4.4d- : %s\n", channels, text);
        int containers = 0;
        for (Container *cont = ch->firstCont; cont != nullptr; cont = cont->nextCont) {
          ++containers;
          std::snprintf(text, sizeof text,
                        "Container(%p): eyecatcher(%8.8s) name(%16.16s) type(%d) ccsid(%d) dataLength(%lu) "
                        "dataPtr(%p) nextCont(%p)",
                        addr(cont), cont->eyecatcher, cont->name, cont->type, cont->ccsid, ul(cont->dataLength),
                        addr(cont->dataPtr), addr(cont->nextCont));
          clapiTraceRaw("   Container list entry -%4.4d/%4.4d- : %s\n", channels, containers, text);
        }
      }
      clapiTraceRaw("Total number of channels=%d\n", channels);
    }
    clapiTraceRaw("%s", kDashes);
  }
  traceChannelExit(1419, "API.QVA_ECI_dumpChannels", rc);
  return rc;
}

// ---- Code page detection -----------------------------------------------------------

// First match wins, so the longer "zh_TW.big5" stands before "zh_TW" and
// "zh". "bu", "iw", "ji" and "sh" are the table's own codes.
const CodeSetEntry CodeSetTable[] = {
    {"ar", 1089},   {"bu", 915},     {"cs", 912},  {"el", 813},   {"hr", 912},       {"hu", 912}, {"iw", 916},
    {"ja", 5050},   {"ji", 916},     {"ko", 970},  {"lv", 912},   {"mk", 915},       {"pl", 912}, {"ro", 912},
    {"ru", 915},    {"sh", 912},     {"sl", 912},  {"sk", 912},   {"sr", 915},       {"tr", 920}, {"zh_TW.big5", 950},
    {"zh_TW", 964}, {"zh_CN", 1383}, {"zh", 1383}, {"big5", 950}, {"tchinese", 964}, {"", 0},
};

namespace {
constexpr int32_t kDefaultCcsid = 819;
}

int32_t getCurrentCcsid(int32_t *ccsidPtr) {
  TRACE_ENTRY(1435, "clapi_channel.getCurrentCcsid(ccsidPtr=%p)\n", addr(ccsidPtr));
  // Sets the whole process's locale from the environment, on every call.
  std::setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe): kept so, as the comment above says
  int32_t ccsid = kDefaultCcsid;
  const char *lang = std::getenv("LANG");
  if (lang == nullptr || lang[0] == '\0') {
    TRACE_DEBUG(1437, "clapi_channel.getCurrentCcsid LANG environment variable not set, defaulting to CCSID %d\n",
                kDefaultCcsid);
  } else {
    const CodeSetEntry *row = CodeSetTable;
    while (row->ccsid != 0 && std::strncmp(lang, row->codeSet, std::strlen(row->codeSet)) != 0) ++row;
    if (row->ccsid != 0) {
      ccsid = row->ccsid;
      TRACE_DEBUG(1438, "clapi_channel.getCurrentCcsid Mapped codeset %s to CCSID %d\n", lang, ccsid);
    } else {
      TRACE_EXC(1439, "clapi_channel.getCurrentCcsid Unable to find a CCSID for codeset %s\n", lang);
    }
  }
  *ccsidPtr = ccsid;
  TRACE_EXIT(1441, "clapi_channel.getCurrentCcsid() rc=%d, *ccsidPtr=%d\n", 0, ccsid);
  return 0;
}
