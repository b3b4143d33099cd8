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

TEST_F(EciVerifyTest, CommareaWithItsLengthPasses) {
  ECI_PARMS parms = validBlock();
  char commarea[10] = {};
  parms.eci_commarea = commarea;
  parms.eci_commarea_length = sizeof commarea;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
}

TEST_F(EciVerifyTest, ExtendModesZeroOneTwoAndFourPass) {
  for (short mode : {0, 1, 2, 4}) {
    ECI_PARMS parms = validBlock();
    parms.eci_extend_mode = mode;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR) << mode;
  }
  for (short mode : {3, 5, -1, -32768, 0x7FFF}) {
    ECI_PARMS parms = validBlock();
    parms.eci_extend_mode = mode;
    EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_INVALID_EXTEND_MODE) << mode;
  }
}

TEST_F(EciVerifyTest, VersionMustLieBetweenMinimumAndFour) {
  struct Case {
    short version;
    int minVersion;
    int rc;
  };
  for (const Case &c : {Case{2, 3, ECI_ERR_INVALID_VERSION}, Case{3, 3, ECI_NO_ERROR}, Case{4, 3, ECI_NO_ERROR},
                        Case{5, 3, ECI_ERR_INVALID_VERSION}, Case{5, 1, ECI_ERR_INVALID_VERSION},
                        Case{2, 2, ECI_NO_ERROR}, Case{1, 2, ECI_ERR_INVALID_VERSION},
                        Case{-1, 1, ECI_ERR_INVALID_VERSION}}) {
    ECI_PARMS parms = validBlock();
    parms.eci_version = c.version;
    EXPECT_EQ(verifyEciParms(&parms, c.minVersion), c.rc) << c.version << " min " << c.minVersion;
  }
}

TEST_F(EciVerifyTest, NullCommareaWithLengthZeroPasses) {
  ECI_PARMS parms = validBlock();
  parms.eci_commarea = nullptr;
  parms.eci_commarea_length = 0;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
}

TEST_F(EciVerifyTest, TimeoutZeroPassesAndNegativeFails) {
  ECI_PARMS parms = validBlock();
  parms.eci_timeout = 0;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
  parms.eci_timeout = 32767;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_NO_ERROR);
  parms.eci_timeout = -1;
  EXPECT_EQ(verifyEciParms(&parms, 3), ECI_ERR_REQUEST_TIMEOUT);
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
