// The TCP connection behind a gateway token.
#pragma once

#include "clapi_export.h"

// Internal results, mapped to QVA_ codes by the token list.
inline constexpr int kConnectOk = 0;
inline constexpr int kConnectFailed = -100;
inline constexpr int kConnectBadHost = -101;
inline constexpr int kConnectNoSocket = -102;
inline constexpr int kConnectTimedOut = -103;

// Resolves ipAddr, connects and flows the handshake. The connect waits at
// most connTimeout seconds (0: no limit) only while the reply deadline is
// set (clapiSetReplyTimeout); otherwise it blocks for the system's own TCP
// connect timeout, whatever connTimeout says. The socket is stored through
// socketDescriptorPtr as soon as it exists, also when a later step fails.
CLAPI_EXPORT int clapiConnectToGateway(int port, const char *ipAddr, int *socketDescriptorPtr, int connTimeout);

// Flows the close request and closes the socket; close()'s result.
CLAPI_EXPORT int clapiCloseConnection(int *socketDescriptorPtr);
