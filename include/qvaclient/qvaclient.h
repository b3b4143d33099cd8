/* qvaclient: the whole application interface in one header, for C99 and C++. */
#ifndef QVACLIENT_QVACLIENT_H
#define QVACLIENT_QVACLIENT_H

#include "qva_api.h"
#include "qva_channel.h"
#include "qva_codes.h"
#include "qva_eci.h"

#endif /* QVACLIENT_QVACLIENT_H */
