#include "orn/result.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

TEST(ResultMessage, GeneralCodesHaveTheirText) {
  EXPECT_EQ(orn::ResultMessage(0), "No error");
  EXPECT_EQ(orn::ResultMessage(1), "False");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80000001)), "Interface not supported");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80000069)), "Bases corrupted");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x8000006A)), "Invalid state");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80000313)), "DateTime syntax error");
}

TEST(ResultMessage, GapsAndForeignFacilitiesAreUnknown) {
  for (std::uint32_t code : {0x8000006Du, 0x80000048u, 0x80000314u, 0x00010100u, 2u, 0x80020100u,
                             0x7FFFFFFFu, 0xFFFFFFFFu}) {
    EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(code)), "Unknown result code")
        << std::hex << code;
  }
}

TEST(ResultMessage, PlatformRangeHasAHole) {
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80010100)), "Unspecified platform error");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80010109)), "Invalid path name");
  for (std::uint32_t code = 0x8001010A; code <= 0x8001010F; ++code)
    EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(code)), "Unknown result code");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80010110)),
            "Cannot open an anonymous level security token");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80010118)), "System shutdown in progress");
  EXPECT_EQ(orn::ResultMessage(static_cast<result_t>(0x80010119)), "Unknown result code");
}

TEST(ResultToTraceText, HexThenMessage) {
  EXPECT_EQ(orn::ResultToTraceText(0), "0x00000000 (No error)");
  EXPECT_EQ(orn::ResultToTraceText(1), "0x00000001 (False)");
  EXPECT_EQ(orn::ResultToTraceText(static_cast<result_t>(0x80000046)),
            "0x80000046 (Invalid argument)");
  EXPECT_EQ(orn::ResultToTraceText(static_cast<result_t>(0x8000abcd)),
            "0x8000abcd (Unknown result code)");
}

TEST(ResultFromErrno, IsAFailureAndRoundTripsTheErrorNumber) {
  EXPECT_EQ(orn::ResultFromErrno(ENOENT), orn::errors::kFileNotFound);
  EXPECT_EQ(orn::ResultFromErrno(ENOMEM), orn::errors::kOutOfMemory);
  for (int err : {ENOENT, ENOTDIR, EEXIST, ELOOP, EIO, EMFILE, ENAMETOOLONG}) {
    const result_t r = orn::ResultFromErrno(err);
    EXPECT_TRUE(ORN_FAILED(r)) << err;
    EXPECT_EQ(orn::ErrnoFromResult(r), err) << err;
  }
}

}  // namespace
