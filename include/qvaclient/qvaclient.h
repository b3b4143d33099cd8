/* qvaclient: the whole application interface in one header, for C99 and C++. */
#ifndef QVACLIENT_QVACLIENT_H
#define QVACLIENT_QVACLIENT_H

#include "qva_codes.h"
#include "qva_eci.h"
#include "qva_api.h"
#include "qva_channel.h"

#endif /* QVACLIENT_QVACLIENT_H */
