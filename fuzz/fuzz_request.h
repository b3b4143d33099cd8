// The ECI request record the fuzz targets send before their reply arrives.
#pragma once

#include "clapi_socketcomms.h"

// A request with the ECI header fields; `name` ("ECI") must outlive it,
// since the reply's name is read back into it.
inline GatewayRequest eciRequest(char (&name)[4]) {
  GatewayRequest request{};
  request.magic = kHeaderMagic;
  request.version = kProtocolVersionWord;
  request.flowType = kFlowEciRequest;
  request.name = name;
  request.nameLength = 3;
  request.extensionMarker = -1;
  return request;
}
