// The process-wide Gateway Token List and its ownership checks.

#include "clapi_gwytok.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <span>

#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_lock.h"
#include "clapi_versions.h"
#include "qvaclient/qva_codes.h"

QvaGatewayToken *gtListHeadPtr = nullptr;
QvaGatewayToken *gtListTailPtr = nullptr;

namespace {

// gtlLock guards the list's links. A token on the list may be found and
// used by its owner's calls while another thread deletes it (a close-all),
// so each call holds its token: the hold is taken while the list check
// still has gtlLock, and given back when the call ends. A deletion unlinks
// the token under gtlLock, lets go of the lock, and then, if a call holds
// the token, shuts the socket down so that the call ends at once with
// QVA_ERR_LOSTGWCON, and waits for it to give the token back. Only then do
// the close flow, the close and the free run: no call ever reads a freed
// token or a descriptor that a newer connection has reused. Shutting down
// rather than waiting for the call's reply keeps a close-all from hanging on
// a Gateway that does not answer.
//
// A token whose creator is still connecting it is skipped by a close-all:
// that connection was not open yet when the close-all began.
//
// Lock order: gtlLock, then tokenUseLock, then traceLock. tokenUseLock
// guards only the uses and opening fields, is held for a few instructions,
// and nothing is traced or sent while it is held. No lock is held across a
// connect, a flow or a call.
ClapiLock gtlLock;
std::mutex tokenUseLock;
std::condition_variable tokenReleased;

void finishOpening(QvaGatewayToken *gwTok) {
  std::lock_guard<std::mutex> uses(tokenUseLock);
  gwTok->opening = false;
}

// The token is off the list; a call may still hold it.
void endCallsOnToken(QvaGatewayToken *gwTok) {
  std::unique_lock<std::mutex> uses(tokenUseLock);
  if (gwTok->uses == 0) return;
  if (gwTok->socket >= 0) shutdown(gwTok->socket, SHUT_RDWR);
  tokenReleased.wait(uses, [gwTok] { return gwTok->uses == 0; });
}

int chainGatewayToken(QvaGatewayToken *gwTok) {
  TRACE_ENTRY(2130, "clapi_qva_gwytok.chainGatewayToken(&gwTokPtr=%p)\n", addr(gwTok));
  int rc = QVA_OK;
  LockHolder gtl(&gtlLock);
  if (gwTok == nullptr) {
    rc = QVA_ERR_NULLGWTOKPTR;
    TRACE_EXC(2131, "clapi_qva_gwytok.chainGatewayToken() Chain request was for a null token\n");
  } else if (gtListHeadPtr == nullptr) {
    // After the last token was deleted the tail still points at it; an empty
    // head resets both.
    gtListHeadPtr = gwTok;
    gtListTailPtr = gwTok;
  } else if (gtListTailPtr == nullptr) {
    rc = QVA_ERR_BADGWTOKLIST;
    TRACE_EXC(2132, "clapi_qva_gwytok.chainGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
              addr(gtListHeadPtr), addr(gtListTailPtr));
  } else {
    gtListTailPtr->nextGwyTokPtr = gwTok;
    gtListTailPtr = gwTok;
  }
  gtl.release();
  TRACE_EXIT(2133, "clapi_qva_gwytok.chainGatewayToken(&gwTokPtr=%p) rc=%d\n", addr(gwTok), rc);
  return rc;
}

int openClientSocket(QvaGatewayToken *gwTok, const char *hostname, int port, int connTimeout) {
  const char *shownHost = hostname != nullptr ? hostname : "NULL";
  TRACE_ENTRY(2140, "clapi_qva_gwytok.openClientSocket(gwTokPtr=%p) Attempting to connect to %s:%d connTimeout=%d \n",
              addr(gwTok), shownHost, port, connTimeout);
  int rc = QVA_OK;
  int connectRc = clapiConnectToGateway(port, hostname, &gwTok->socket, connTimeout);
  if (connectRc == kConnectOk) {
    gwTok->connStatus = kConnConnected;
    TRACE_EVENT(2141, "clapi_qva_gwytok.openClientSocket() Connected to Gateway %s:%u - socketDescriptor(%d)\n",
                shownHost, static_cast<unsigned>(port), gwTok->socket);
  } else {
    gwTok->connStatus = kConnFailed;
    TRACE_EXC(2142, "clapi_qva_gwytok.openClientSocket() Failed to connect to Gateway %s:%u\n", shownHost,
              static_cast<unsigned>(port));
    rc = connectRc == kConnectTimedOut  ? QVA_ERR_CONNECTTIMEOUT
         : connectRc == kConnectBadHost ? QVA_ERR_BADHOST
                                        : QVA_ERR_CONNECTFAILED;
  }
  TRACE_EXIT(2143, "clapi_qva_gwytok.openClientSocket(gwTokPtr=%p, hostname=%s, port=%d) rc=%d\n", addr(gwTok),
             shownHost, port, rc);
  return rc;
}

// Closes the token's connection with the close flow, as every deletion does.
// After a failed connect that flow fails at once on the unconnected socket,
// with its own exception lines; a connect that timed out may still be in
// progress, and a send on it would wait for it, so the socket is made
// non-blocking first. The one exception is a connection that was made but
// whose handshake failed: that Gateway has misbehaved on a live connection,
// and the wait for its close reply would have no limit.
int closeTokenConnection(QvaGatewayToken *gwTok) {
  if (gwTok->connStatus == kConnFailed && gwTok->socket >= 0) {
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof peer;
    if (getpeername(gwTok->socket, reinterpret_cast<sockaddr *>(&peer), &peerLength) == 0) {
      int closeRc = close(gwTok->socket);
      gwTok->socket = -1;
      return closeRc;
    }
    fcntl(gwTok->socket, F_SETFL, fcntl(gwTok->socket, F_GETFL) | O_NONBLOCK);
  }
  return clapiCloseConnection(&gwTok->socket);
}

}  // namespace

int clapiInitGTL(void) {
  TRACE_ENTRY(2100, "clapi_qva_gwytok.clapiInitGTL()\n");
  int initLockRc = clapiInitializeLock(&gtlLock);
  int shownRc = (initLockRc == kLockOk || initLockRc == kLockAlreadyInitialized) ? 0 : QVA_ERR_LOCKFAIL;
  TRACE_EXIT(2101, "clapi_qva_gwytok.clapiInitGTL() initLockRc=%d, rc=%d\n", initLockRc, shownRc);
  return initLockRc;
}

int findGatewayToken(const QvaGatewayToken *target, QvaGatewayToken **parent) {
  TRACE_ENTRY(2110, "clapi_qva_gwytok.findGatewayToken(target=%p,&parent=%p)\n", addr(target), addr(parent));
  int rc;
  if (target == nullptr) {
    rc = kGtlTargetNull;
    TRACE_EXC(2111, "clapi_qva_gwytok.findGatewayToken() Target was a null token\n");
  } else if (gtListHeadPtr == nullptr) {
    rc = kGtlHeadNull;
    TRACE_EXC(2112, "clapi_qva_gwytok.findGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
              addr(gtListHeadPtr), addr(gtListTailPtr));
  } else {
    // Only addresses are compared until the target is found on the list, so
    // a stale pointer from the application is never followed.
    QvaGatewayToken *previous = nullptr;
    QvaGatewayToken *current = gtListHeadPtr;
    int entry = 0;
    for (;;) {
      if (current == target) {
        rc = kGtlFound;
        if (parent != nullptr) *parent = previous;
        TRACE_DEBUG(2113, "clapi_qva_gwytok.findGatewayToken() Target token found at GTL Entry(%d)\n", entry);
        break;
      }
      previous = current;
      current = current->nextGwyTokPtr;
      ++entry;
      if (current == nullptr && entry != kGtlRunawayLimit) {
        rc = kGtlNotFound;
        TRACE_DEBUG(2114,
                    "clapi_qva_gwytok.findGatewayToken() Target token not found. GTL entries(%d) head(%p) last(%p)\n",
                    entry, addr(gtListHeadPtr), addr(previous));
        break;
      }
      if (entry >= kGtlRunawayLimit) {
        rc = kGtlRunaway;
        TRACE_EXC(2115, "clapi_qva_gwytok.findGatewayToken() GTL iteration has hit RUNAWAY limit %d.....\n",
                  kGtlRunawayLimit);
        break;
      }
    }
  }
  TRACE_EXIT(2116, "clapi_qva_gwytok.findGatewayToken(target=%p,&parent=%p) rc=%d\n", addr(target), addr(parent), rc);
  return rc;
}

int clapiCreateGatewayToken(QvaGatewayToken **gwTokPtr, const char *hostname, int port, int connTimeout) {
  TRACE_ENTRY(2120, "clapi_qva_gwytok.clapiCreateGatewayToken(&gwTokPtr=%p,port=%d,connTimeout=%d)\n", addr(gwTokPtr),
              port, connTimeout);
  int rc = QVA_OK;
  auto *gwTok = static_cast<QvaGatewayToken *>(plainMalloc(sizeof(QvaGatewayToken), "GTOK"));
  char *protocolVersion = static_cast<char *>(plainMalloc(sizeof kProtocolVersion, "PVER"));
  if (gwTok == nullptr || protocolVersion == nullptr) {
    std::free(gwTok);
    std::free(protocolVersion);
    rc = QVA_ERR_MALLOCFAIL;
    TRACE_EXC(2121, "clapi_qva_gwytok.clapiCreateGatewayToken Failed to allocate %d bytes\n",
              static_cast<int>(sizeof(QvaGatewayToken)));
  } else {
    TRACE_DEBUG(2122, "clapi_qva_gwytok.clapiCreateGatewayToken Called malloc for %d bytes. new token address=%p\n",
                static_cast<int>(sizeof(QvaGatewayToken)), addr(gwTok));
    *gwTok = QvaGatewayToken{};
    std::memcpy(gwTok->eyecatcher, "QVAGWTOK", 8);
    gwTok->port = port;
    gwTok->connStatus = kConnNew;
    gwTok->socket = -1;  // nothing to close until a socket exists
    gwTok->opening = true;
    clapiGetPidTid(&gwTok->owningPid, &gwTok->owningTid);
    gwTok->owningThread = pthread_self();
    std::memcpy(protocolVersion, kProtocolVersion, sizeof kProtocolVersion);
    gwTok->protocolVersion = protocolVersion;

    rc = chainGatewayToken(gwTok);
    if (rc != QVA_OK) {
      // Never on the list, so nothing else can reach it.
      std::free(gwTok->protocolVersion);
      std::free(gwTok);
    } else {
      rc = openClientSocket(gwTok, hostname, port, connTimeout);
      if (rc != QVA_OK) {
        finishOpening(gwTok);
        // A close-all may have taken the token since; then this finds
        // nothing and the close-all frees it.
        QvaGatewayToken *failed = gwTok;
        clapiDeleteGatewayToken(&failed, 1);
      } else {
        if (traceOn(kTraceEvent)) {
          char text[kTokenTextSize];
          clapiFormatGatewayToken(gwTok, text);
          clapiTrace(2123, "EVENT", "clapi_qva_gwytok.clapiCreateGatewayToken(&gwTokPtr=%p) %s\n", addr(gwTokPtr),
                     text);
        }
        finishOpening(gwTok);
        *gwTokPtr = gwTok;
      }
    }
  }
  TRACE_EXIT(2124, "clapi_qva_gwytok.clapiCreateGatewayToken(&gwTokPtr=%p,port=%d) rc=%d\n", addr(gwTokPtr), port, rc);
  return rc;
}

namespace {

// The list check and ownership check of a call; with `hold`, a token that
// passes both is held for the caller. The owner is compared while the list
// lock is held, so a thread that does not own the token never holds it, not
// even for a moment; the mismatch is traced after the lock is let go.
int verifyGatewayToken(QvaGatewayToken *gwTok, bool hold) {
  TRACE_ENTRY(2150, "clapi_qva_gwytok.clapiVerifyGatewayToken(&gwTokPtr=%p)\n", addr(gwTok));
  int rc = QVA_OK;
  uint32_t owningPid = 0;
  uint32_t owningTid = 0;
  uint32_t currentPid = 0;
  uint32_t currentTid = 0;
  LockHolder gtl(&gtlLock);
  int findRc = findGatewayToken(gwTok, nullptr);
  if (findRc != kGtlFound) {
    rc = QVA_ERR_BADGWTOK;
    TRACE_EXC(2151, "clapi_qva_gwytok.clapiVerifyGatewayToken(&gwTokPtr=%p) Gateway token not found - findRc=%d\n",
              addr(gwTok), findRc);
  } else {
    owningPid = gwTok->owningPid;
    owningTid = gwTok->owningTid;
    clapiGetPidTid(&currentPid, &currentTid);
    if (currentPid != owningPid) {
      rc = QVA_ERR_PIDMISMATCH;
    } else if (!clapiCompareTids(pthread_self(), gwTok->owningThread)) {
      rc = QVA_ERR_TIDMISMATCH;
    } else if (hold) {
      std::lock_guard<std::mutex> uses(tokenUseLock);
      ++gwTok->uses;
    }
  }
  gtl.release();
  if (rc == QVA_ERR_PIDMISMATCH) {
    TRACE_EXC(2152, "clapi_qva_gwytok.clapiVerifyGatewayToken PID mismatch: currentPid=%d, owningPid=%d\n",
              static_cast<int>(currentPid), static_cast<int>(owningPid));
  } else if (rc == QVA_ERR_TIDMISMATCH) {
    TRACE_EXC(2153, "clapi_qva_gwytok.clapiVerifyGatewayToken TID mismatch: currentTid=%d, owningTid=%d\n",
              static_cast<int>(currentTid), static_cast<int>(owningTid));
  }
  TRACE_EXIT(2154, "clapi_qva_gwytok.clapiVerifyGatewayToken(&gwTokPtr=%p) rc=%d\n", addr(gwTok), rc);
  return rc;
}

// Unlinks the token from the list, closes its connection and frees it.
// `unlinked`: a close-all has already taken it off the list.
int deleteGatewayToken(QvaGatewayToken **gwTokPtr, int lockRequired, bool unlinked) {
  TRACE_ENTRY(2160, "clapi_qva_gwytok.clapiDeleteGatewayToken(&gwTokPtr=%p, lockRequired=%d)\n", addr(gwTokPtr),
              lockRequired);
  int rc = QVA_OK;
  if (gwTokPtr == nullptr) {
    rc = QVA_ERR_NULLGWTOKPTR;
  } else if (*gwTokPtr == nullptr) {
    rc = QVA_ERR_NULLGWTOK;
  } else {
    QvaGatewayToken *gwTok = *gwTokPtr;
    QvaGatewayToken *parent = nullptr;
    LockHolder gtl(lockRequired == 1 ? &gtlLock : nullptr);
    if (lockRequired == 1 && findGatewayToken(gwTok, &parent) != kGtlFound) {
      rc = QVA_ERR_BADGWTOK;
    } else {
      if (!unlinked) {
        // Without the lock the caller walks the list from its head.
        if (parent != nullptr) {
          parent->nextGwyTokPtr = gwTok->nextGwyTokPtr;
          if (parent->nextGwyTokPtr == nullptr) gtListTailPtr = parent;
        } else {
          // The tail is left as it was: the next create sees an empty head
          // and resets both.
          gtListHeadPtr = gwTok->nextGwyTokPtr;
        }
      }
      gtl.release();
      endCallsOnToken(gwTok);
      gwTok->connStatus = closeTokenConnection(gwTok) != 0 ? kConnCloseFailed : kConnClosed;
      TRACE_DEBUG(2161, "clapi_qva_gwytok.clapiDeleteGatewayToken About to free protocolVersion String (%p)\n",
                  addr(gwTok->protocolVersion));
      std::free(gwTok->protocolVersion);
      std::free(gwTok);
      *gwTokPtr = nullptr;
    }
  }
  TRACE_EXIT(2162, "clapi_qva_gwytok.clapiDeleteGatewayToken(&gwTokPtr=%p, lockRequired=%d) rc=%d\n", addr(gwTokPtr),
             lockRequired, rc);
  return rc;
}

// Takes up to kGtlRunawayLimit tokens off the list, in list order, into
// `taken`, skipping those still being opened; returns how many. The caller
// holds gtlLock. As when the head is deleted, the tail is left alone unless
// a token stays behind at the end.
int takeTokensOffTheList(QvaGatewayToken **taken) {
  std::lock_guard<std::mutex> uses(tokenUseLock);
  int count = 0;
  QvaGatewayToken *kept = nullptr;  // the last token that stays
  QvaGatewayToken *newHead = nullptr;
  QvaGatewayToken *tok = gtListHeadPtr;
  for (; tok != nullptr && count < kGtlRunawayLimit; tok = tok->nextGwyTokPtr) {
    if (!tok->opening) {
      taken[count++] = tok;
      continue;
    }
    if (kept != nullptr) {
      kept->nextGwyTokPtr = tok;
    } else {
      newHead = tok;
    }
    kept = tok;
  }
  // tok: the first token past the limit, or null.
  if (kept != nullptr) {
    kept->nextGwyTokPtr = tok;
    if (tok == nullptr) gtListTailPtr = kept;
  } else {
    newHead = tok;
  }
  gtListHeadPtr = newHead;
  return count;
}

}  // namespace

int clapiVerifyGatewayToken(QvaGatewayToken *gwTok) { return verifyGatewayToken(gwTok, false); }

int holdGatewayToken(QvaGatewayToken *gwTok) { return verifyGatewayToken(gwTok, true); }

void releaseGatewayToken(QvaGatewayToken *gwTok) {
  std::lock_guard<std::mutex> uses(tokenUseLock);
  if (--gwTok->uses == 0) tokenReleased.notify_all();
}

int clapiDeleteGatewayToken(QvaGatewayToken **gwTokPtr, int lockRequired) {
  return deleteGatewayToken(gwTokPtr, lockRequired, false);
}

int clapiDeleteGatewayTokens(void) {
  TRACE_ENTRY(2170, "clapi_qva_gwytok.clapiDeleteGatewayTokens()\n");
  int rc = QVA_OK;
  int deleted = 0;
  QvaGatewayToken *taken[kGtlRunawayLimit];
  int count = 0;
  LockHolder gtl(&gtlLock);
  if (gtListHeadPtr == nullptr) {
    rc = kGtlEmpty;
    TRACE_EVENT(2171, "clapi_qva_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY\n");
  } else {
    count = takeTokensOffTheList(taken);
  }
  gtl.release();
  for (QvaGatewayToken *indexToken : std::span(taken, count)) {
    if (traceOn(kTraceEvent)) {
      char text[kTokenTextSize];
      clapiFormatGatewayToken(indexToken, text);
      clapiTrace(2172, "EVENT", "clapi_qva_gwytok.clapiDeleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n",
                 addr(indexToken), deleted + 1, text);
    }
    deleteGatewayToken(&indexToken, 0, true);
    ++deleted;
  }
  if (deleted == kGtlRunawayLimit) {
    rc = kGtlRunaway;
    TRACE_EXC(2173, "clapi_qva_gwytok.clapiDeleteGatewayTokensGTL iteration has hit RUNAWAY limit %d.....\n",
              kGtlRunawayLimit);
  }
  TRACE_EXIT(2174, "clapi_qva_gwytok.clapiDeleteGatewayTokens() Entries deleted=%d rc=%d\n", deleted, rc);
  return rc;
}

int clapiFormatGatewayToken(const QvaGatewayToken *gwTok, char *dst) {
  if (dst == nullptr) return QVA_ERR_NULLPARM;
  if (gwTok == nullptr) {
    std::strcpy(dst, "GatwayToken(NULL)");
  } else {
    // "Gatway" is the spelling every trace reader expects.
    std::snprintf(dst, kTokenTextSize,
                  "GatwayToken(%p) eyecatcher(%8.8s) port(%d) connStatus(%d) socket(%d) owningPid(%8.8X) "
                  "owningTid(%8.8X) nextGwyTokPtr(%p)",
                  addr(gwTok), gwTok->eyecatcher, gwTok->port, gwTok->connStatus, gwTok->socket, gwTok->owningPid,
                  gwTok->owningTid, addr(gwTok->nextGwyTokPtr));
  }
  return QVA_OK;
}

int clapiDumpGatewayTokens(void) {
  TRACE_ENTRY(2180, "clapi_qva_gwytok.clapiDumpGatewayTokens()\n");
  static constexpr char kDashes[] =
      "--------------------------------------------------------------------------------\n";
  int rc = QVA_OK;
  int count = 0;
  {
    LockHolder gtl(&gtlLock);
    LockHolder trace(&traceLock);
    if (gtListHeadPtr == nullptr) {
      clapiTraceRaw("The Gateway Token List is EMPTY\n");
      rc = kGtlEmpty;
    } else {
      clapiTraceRaw("Gateway Token List dump\n%s", kDashes);
      char text[kTokenTextSize];
      for (QvaGatewayToken *tok = gtListHeadPtr; tok != nullptr && count < kGtlRunawayLimit; tok = tok->nextGwyTokPtr) {
        clapiFormatGatewayToken(tok, text);
        ++count;
        clapiTraceRaw("Gateway Token List entry -%4.4d- : %s\n", count, text);
      }
      clapiTraceRaw("Total number of Gateway Token List entries=%d\n%s", count, kDashes);
      if (count == kGtlRunawayLimit) rc = kGtlRunaway;
    }
  }
  if (rc == kGtlRunaway) {
    TRACE_EXC(2181,
              "clapi_qva_gwytok.clapiDumpGatewayTokensGateway Token List iteration has hit RUNAWAY limit %d.....\n",
              kGtlRunawayLimit);
  }
  TRACE_EXIT(2182, "clapi_qva_gwytok.clapiDumpGatewayTokens() List length=%d rc=%d\n", count, rc);
  return rc;
}
