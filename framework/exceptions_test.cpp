#include "framework/exceptions.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <system_error>

#include "tests/fake_host.h"

namespace {

using arvo::test::RecordingTracer;

template <class F>
result_t Convert(F&& thrower, RecordingTracer* tracer = nullptr) {
  try {
    thrower();
  } catch (...) {
    return orn::ExceptionToResult(tracer, "Exception during object construction: ");
  }
  return 0;
}

TEST(Exceptions, TreeShapeLetsCatchSitesSelect) {
  EXPECT_THROW(throw orn::SystemException("f", 1, ENOENT), orn::ResultCodeException);
  EXPECT_THROW(throw orn::datetime::TimeSystemError("f", 1, EINVAL), orn::SystemException);
  EXPECT_THROW(throw orn::CheckResultFailedException("f", 1, orn::errors::kUnspecified, "x()"),
               orn::Exception);
  EXPECT_THROW(throw orn::GetInterfaceException(1, 0, orn::errors::kNoInterface), orn::exception);
  EXPECT_STREQ(orn::exception().what(), "Unknown exception");
}

TEST(Exceptions, DescribeCarriesMessageLocationTypeAndProperties) {
  std::string text;
  orn::ResultCodeException("objclient", 103, orn::errors::kNoInterface, "Can't get interface")
      .Describe(text);
  EXPECT_NE(text.find("Can't get interface"), std::string::npos);
  EXPECT_NE(text.find("objclient:103"), std::string::npos);
  EXPECT_NE(text.find("<typeid=orn::ResultCodeException"), std::string::npos);
  EXPECT_NE(text.find(" Properties:"), std::string::npos);
  EXPECT_NE(text.find("orn.result = 0x80000001 (Interface not supported)"), std::string::npos);

  std::string sys;
  orn::SystemException("f.cpp", 7, ENOENT).Describe(sys);
  EXPECT_NE(sys.find("os.result = 2"), std::string::npos);
  EXPECT_NE(sys.find("os.module_result"), std::string::npos);
}

TEST(Exceptions, GetInterfaceExceptionCarriesLookupProperties) {
  const orn::GetInterfaceException e(0x9CCA5603, 0, orn::errors::kNoInterface);
  std::string text;
  e.Describe(text);
  EXPECT_NE(text.find("Can't get interface objclient:103"), std::string::npos);
  EXPECT_NE(text.find("orn.iid = 0x9cca5603"), std::string::npos);
  EXPECT_NE(text.find("orn.serviceKey = 0x00000000"), std::string::npos);
  EXPECT_NE(text.find("orn.result = 0x80000001"), std::string::npos);
}

TEST(ExceptionToResult, MapsEachFamily) {
  EXPECT_EQ(Convert([] { throw std::bad_alloc(); }), orn::errors::kOutOfMemory);
  EXPECT_EQ(Convert([] { throw orn::ResultCodeException("f", 1, orn::errors::kLocked); }),
            orn::errors::kLocked);
  EXPECT_EQ(Convert([] { throw orn::ResultCodeException("f", 1, 1); }),
            orn::errors::kExceptionSuccessResult);
  EXPECT_EQ(Convert([] { throw orn::GetInterfaceException(5, 0, orn::errors::kNotFound); }),
            orn::errors::kNotFound);
  EXPECT_EQ(Convert([] { throw std::invalid_argument("x"); }), orn::errors::kInvalidArgument);
  EXPECT_EQ(Convert([] { throw std::length_error("x"); }), orn::errors::kBufferTooSmall);
  EXPECT_EQ(Convert([] { throw std::system_error(EACCES, std::generic_category()); }),
            orn::errors::kAccessDenied);
  EXPECT_EQ(Convert([] { throw std::runtime_error("x"); }), orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { throw 42; }), orn::errors::kUnknownException);
  EXPECT_EQ(orn::ExceptionToResult(nullptr, "x"), orn::errors::kNoCurrentException);
}

TEST(ExceptionToResult, TracesTheDescriptionWithThePrefix) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  Convert(
      [] {
        try {
          throw std::runtime_error("inner");
        } catch (...) {
          std::throw_with_nested(
              orn::ResultCodeException("f", 1, orn::errors::kUnspecified, "outer"));
        }
      },
      tracer.Get());
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 300u);
  EXPECT_EQ(lines[0].text.rfind("Exception during object construction: outer", 0), 0u);
  EXPECT_NE(lines[0].text.find("inner"), std::string::npos);
}

}  // namespace
