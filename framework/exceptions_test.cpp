#include "framework/exceptions.h"

#include <gtest/gtest.h>

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <typeinfo>
#include <variant>

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
  EXPECT_NE(sys.find("orn.result = 0x80010102 (File not found)"), std::string::npos);
  EXPECT_NE(sys.find("os.result = 2"), std::string::npos);
  EXPECT_NE(sys.find("os.module_result = 0x80010102"), std::string::npos);
}

TEST(Exceptions, PlatformPropertiesGoWithAPlatformCodeOnly) {
  // A result exception holding a platform code carries both platform
  // properties.
  std::string platform;
  orn::ResultCodeException("f.cpp", 3, orn::errors::kFileNotFound).Describe(platform);
  EXPECT_NE(platform.find("orn.result = 0x80010102 (File not found)"), std::string::npos);
  EXPECT_NE(platform.find("os.result = 2"), std::string::npos);
  EXPECT_NE(platform.find("os.module_result = 0x80010102"), std::string::npos);

  // A system exception whose errno became a general code carries none.
  std::string general;
  orn::SystemException("f.cpp", 4, ENOMEM).Describe(general);
  EXPECT_NE(general.find("orn.result = 0x80000041 (Out of memory)"), std::string::npos);
  EXPECT_EQ(general.find("os.result"), std::string::npos);
  EXPECT_EQ(general.find("os.module_result"), std::string::npos);

  std::string plain;
  orn::ResultCodeException("f.cpp", 5, orn::errors::kLocked).Describe(plain);
  EXPECT_EQ(plain.find("os."), std::string::npos);
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

// Every standard-library exception maps onto one of the seven general codes
// the conversion may yield; only what the library does not throw is unknown.
TEST(ExceptionToResult, EveryStandardExceptionMapsToAGeneralCode) {
  struct Base {
    virtual ~Base() = default;
  };
  struct Other : Base {};
  EXPECT_EQ(Convert([] {
              Base b;
              (void)dynamic_cast<Other&>(b);
            }),
            orn::errors::kInvalidArgument);  // std::bad_cast
  EXPECT_EQ(Convert([] {
              Base* p = nullptr;
              (void)typeid(*p);
            }),
            orn::errors::kInvalidArgument);  // std::bad_typeid
  EXPECT_EQ(Convert([] { (void)std::any_cast<int>(std::any(1.0)); }),
            orn::errors::kInvalidArgument);  // std::bad_any_cast
  EXPECT_EQ(Convert([] { (void)std::optional<int>().value(); }), orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { (void)std::get<int>(std::variant<int, double>(1.0)); }),
            orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { std::function<void()>()(); }), orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { (void)std::shared_ptr<int>(std::weak_ptr<int>()); }),
            orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { throw std::bad_exception(); }), orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { throw std::exception(); }), orn::errors::kInvalidState);
  EXPECT_EQ(Convert([] { throw std::bad_array_new_length(); }), orn::errors::kOutOfMemory);
  EXPECT_EQ(Convert([] { throw std::system_error(ENOSPC, std::generic_category()); }),
            orn::errors::kOutOfSpace);
  EXPECT_EQ(Convert([] { throw std::system_error(EBUSY, std::generic_category()); }),
            orn::errors::kLocked);

  // Not the standard library's: unknown.
  struct Own : std::exception {};
  EXPECT_EQ(Convert([] { throw Own(); }), orn::errors::kUnknownException);
  EXPECT_EQ(Convert([] { throw orn::exception(); }), orn::errors::kUnknownException);
  EXPECT_EQ(Convert([] { throw orn::Exception("f", 1, "no result"); }),
            orn::errors::kUnknownException);
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
