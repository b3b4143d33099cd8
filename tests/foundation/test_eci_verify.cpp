// ECI parameter validation: what passes, what fails with which code, the
// order of the checks, and the exception lines.

#include "clapi_eci.h"

#include <cstring>

#include "trace_fixture.h"

namespace {

using qvatest::ptrText;
using qvatest::TraceFileTest;
using Lines = std::vector<std::string>;

ECI_PARMS validBlock() {
  ECI_PARMS parms;
  std::memset(&parms, 0, sizeof parms);
  parms.eci_call_type = ECI_SYNC;
  std::memcpy(parms.eci_program_name, "PROG1   ", 8);
  parms.eci_extend_mode = ECI_NO_EXTEND;
  parms.eci_version = 3;
  return parms;
}

using EciVerifyTest = TraceFileTest;

TEST_F(EciVerifyTest, ValidBlockPassesAndTracesEntryAndExit) {
  ASSERT_EQ(QVA_setAPITraceLevel(3), QVA_OK);
  mark();
  ECI_PARMS parms = validBlock();
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
  const std::string p = ptrText(&parms);
  EXPECT_EQ(sinceMark(), (Lines{"3300 ENTRY  clapi_eci.verifyEciParms(&EciParms=" + p + ", minVersion=3)",
                                "3307 EXIT   clapi_eci.verifyEciParms(&EciParms=" + p + ") rc=0"}));
}

// One field changed from a valid block, and what the check makes of it.
TEST_F(EciVerifyTest, EachFieldPassesOrFailsWithItsOwnCode) {
  static char commarea[10];
  struct Case {
    const char *what;
    void (*change)(ECI_PARMS &);
    int minVersion;
    int rc;
  };
  const Case cases[] = {
      {"COMMAREA with its length", [](ECI_PARMS &p) {
         p.eci_commarea = commarea;
         p.eci_commarea_length = 10;
       }, 3,
       ECI_NO_ERROR},
      {"extend mode 1", [](ECI_PARMS &p) { p.eci_extend_mode = 1; }, 3, ECI_NO_ERROR},
      {"extend mode 2", [](ECI_PARMS &p) { p.eci_extend_mode = 2; }, 3, ECI_NO_ERROR},
      {"extend mode 4", [](ECI_PARMS &p) { p.eci_extend_mode = 4; }, 3, ECI_NO_ERROR},
      {"extend mode 3", [](ECI_PARMS &p) { p.eci_extend_mode = 3; }, 3, ECI_ERR_INVALID_EXTEND_MODE},
      {"extend mode 5", [](ECI_PARMS &p) { p.eci_extend_mode = 5; }, 3, ECI_ERR_INVALID_EXTEND_MODE},
      {"extend mode -32768", [](ECI_PARMS &p) { p.eci_extend_mode = -32768; }, 3, ECI_ERR_INVALID_EXTEND_MODE},
      {"extend mode 32767", [](ECI_PARMS &p) { p.eci_extend_mode = 0x7FFF; }, 3, ECI_ERR_INVALID_EXTEND_MODE},
      {"version 2 of 3", [](ECI_PARMS &p) { p.eci_version = 2; }, 3, ECI_ERR_INVALID_VERSION},
      {"version 4 of 3", [](ECI_PARMS &p) { p.eci_version = 4; }, 3, ECI_NO_ERROR},
      {"version 5 of 3", [](ECI_PARMS &p) { p.eci_version = 5; }, 3, ECI_ERR_INVALID_VERSION},
      {"version 5 of 1", [](ECI_PARMS &p) { p.eci_version = 5; }, 1, ECI_ERR_INVALID_VERSION},
      {"version 2 of 2", [](ECI_PARMS &p) { p.eci_version = 2; }, 2, ECI_NO_ERROR},
      {"version 1 of 2", [](ECI_PARMS &p) { p.eci_version = 1; }, 2, ECI_ERR_INVALID_VERSION},
      {"version -1 of 1", [](ECI_PARMS &p) { p.eci_version = -1; }, 1, ECI_ERR_INVALID_VERSION},
      {"time-out 32767", [](ECI_PARMS &p) { p.eci_timeout = 32767; }, 3, ECI_NO_ERROR},
      {"time-out -1", [](ECI_PARMS &p) { p.eci_timeout = -1; }, 3, ECI_ERR_REQUEST_TIMEOUT},
  };
  for (const Case &c : cases) {
    ECI_PARMS parms = validBlock();
    c.change(parms);
    EXPECT_EQ(verifyEciParms(&parms, c.minVersion), c.rc) << c.what;
  }
}

TEST_F(EciVerifyTest, ChecksRunInTheirOrderAndStopAtTheFirstFailure) {
  char commarea[4] = {};
  {
    ECI_PARMS parms = validBlock();
    parms.eci_call_type = 2;
    parms.eci_extend_mode = 3;
    parms.eci_commarea_length = -1;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_CALL_TYPE);
  }
  {
    ECI_PARMS parms = validBlock();
    parms.eci_extend_mode = 3;
    parms.eci_commarea_length = -1;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_EXTEND_MODE);
  }
  {
    // A negative length is reported before the pointer is looked at.
    ECI_PARMS parms = validBlock();
    parms.eci_commarea = nullptr;
    parms.eci_commarea_length = -5;
    parms.eci_version = 9;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_LENGTH);
    parms.eci_commarea = commarea;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_LENGTH);
  }
  {
    ECI_PARMS parms = validBlock();
    parms.eci_commarea_length = 4;
    parms.eci_version = 9;
    parms.eci_timeout = -1;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_AREA);
  }
  {
    ECI_PARMS parms = validBlock();
    parms.eci_version = 2;
    parms.eci_timeout = -1;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_VERSION);
  }
}

TEST_F(EciVerifyTest, EachFailureWritesItsExceptionLine) {
  ASSERT_EQ(QVA_setAPITraceLevel(1), QVA_OK);
  mark();
  char commarea[4] = {};
  ECI_PARMS parms = validBlock();
  const std::string p = "clapi_eci.verifyEciParms(&EciParms=" + ptrText(&parms) + ") ";

  parms.eci_call_type = 0;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_CALL_TYPE);
  parms = validBlock();
  parms.eci_extend_mode = -1;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_EXTEND_MODE);
  parms = validBlock();
  parms.eci_commarea_length = -7;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_LENGTH);
  parms = validBlock();
  parms.eci_commarea_length = 12;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_AREA);
  parms = validBlock();
  parms.eci_commarea = commarea;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_DATA_AREA);
  parms = validBlock();
  parms.eci_version = 5;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_VERSION);
  parms = validBlock();
  parms.eci_timeout = -2;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_REQUEST_TIMEOUT);

  EXPECT_EQ(sinceMark(), (Lines{
                             "3301 *EXC*  " + p + "Invalid Call Type - eci_call_type=0",
                             "3302 *EXC*  " + p + "Invalid Extend Mode - eci_extend_mode=-1",
                             "3303 *EXC*  " + p + "Invalid Data Length - eci_commarea_length=-7",
                             "3304 *EXC*  " + p + "Invalid Data Area - Commarea null but eci_commarea_length=12 ",
                             "3304 *EXC*  " + p + "Invalid Data Area - Commarea not null but eci_commarea_length=0",
                             "3305 *EXC*  " + p + "Invalid ECI Version - eci_version=5",
                             "3306 *EXC*  " + p + "Invalid Timeout - eci_timeout=-2",
                         }));
}

}  // namespace
