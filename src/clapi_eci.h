// ECI parameter validation, ECI result-code names and the ECI entry points.
#pragma once

#include "qvaclient/qvaclient.h"

// Checks a caller's parameter block (not null) in the documented order;
// returns 0 or the ECI code of the first failing check.
int verifyEciParms(const ECI_PARMS *eciParms, int minVersion);

// The ECI name of rc, or null when the ECI table has none.
const char *eciCodeName(int rc);
