// The framework's exception classes. Exceptions are used only inside object
// construction, the throwing form of service lookup and framework helpers;
// they never cross an interface: ExceptionToResult converts them at the
// boundary. Catch sites select on this tree, so its shape is fixed.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "orn/result.h"
#include "orn/service_locator.h"
#include "orn/tracer.h"

namespace orn {

using PropertyBag = std::vector<std::pair<std::string, std::string>>;

class exception : public std::exception {
 public:
  const char* what() const noexcept override { return "Unknown exception"; }
};

class Exception : public exception {
 public:
  Exception(const char* file, int line, std::string message = {}, PropertyBag props = {})
      : m_file(file ? file : ""),
        m_line(line),
        m_message(std::move(message)),
        m_properties(std::move(props)) {}
  const char* what() const noexcept override {
    return m_message.empty() ? exception::what() : m_message.c_str();
  }
  // Writes the whole exception: message, location, "<typeid=" dynamic type,
  // " Properties:" with one line per property.
  virtual void Describe(std::string& out) const;

  const std::string& File() const { return m_file; }
  int Line() const { return m_line; }
  const std::string& Message() const { return m_message; }
  const PropertyBag& Properties() const { return m_properties; }
  void AddProperty(std::string key, std::string value) {
    m_properties.emplace_back(std::move(key), std::move(value));
  }

 protected:
  // Properties of the dynamic type added at describe time.
  virtual void CollectProperties(PropertyBag& props) const { (void)props; }

 private:
  std::string m_file;
  int m_line;
  std::string m_message;
  PropertyBag m_properties;
};

// Copy and rethrow support for a concrete class D derived from Base.
template <class D, class Base>
class ExceptionBase : public Base {
 public:
  using Base::Base;
  [[noreturn]] virtual void Rethrow() const { throw static_cast<const D&>(*this); }
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  ResultCodeException(const char* file, int line, result_t result, std::string message = {},
                      PropertyBag props = {})
      : ExceptionBase(file, line, std::move(message), std::move(props)), m_result(result) {}
  result_t Result() const { return m_result; }

 protected:
  // "orn.result", and for a platform code "os.result" and "os.module_result".
  void CollectProperties(PropertyBag& props) const override;
  // The operating system's error number of a platform code (0 when unknown).
  virtual int PlatformError() const;

 private:
  result_t m_result;
};

class SystemException : public ExceptionBase<SystemException, ResultCodeException> {
 public:
  // `err` is the operating system's error number behind the result.
  SystemException(const char* file, int line, int err, std::string message = {})
      : ExceptionBase(file, line, ResultFromErrno(err), std::move(message)), m_errno(err) {}
  int Errno() const { return m_errno; }

 protected:
  // The error number kept beside the result ("os.result" of a platform
  // code; a general code, such as ENOMEM's, carries "orn.result" only).
  int PlatformError() const override;

 private:
  int m_errno;
};

namespace datetime {
class TimeSystemError : public SystemException {
 public:
  using SystemException::SystemException;
};
}  // namespace datetime

class CheckResultFailedException
    : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
 public:
  CheckResultFailedException(const char* file, int line, result_t result, std::string expression)
      : ExceptionBase(file, line, result, "Check failed: " + expression),
        m_expression(std::move(expression)) {}
  const std::string& Expression() const { return m_expression; }

 private:
  std::string m_expression;
};

// Thrown by the throwing form of service lookup.
class GetInterfaceException : public exception {
 public:
  GetInterfaceException(iid_t iid, service_key_t key, result_t result);
  const char* what() const noexcept override { return "Can't get interface"; }
  void Describe(std::string& out) const;
  iid_t Iid() const { return m_iid; }
  service_key_t Key() const { return m_key; }
  result_t Result() const { return m_result; }
  const char* File() const { return "objclient"; }
  int Line() const { return 103; }
  const PropertyBag& Properties() const { return m_properties; }

 private:
  iid_t m_iid;
  service_key_t m_key;
  result_t m_result;
  PropertyBag m_properties;
};

// Throwing form of a checked call (framework helpers only).
#define ORN_CHECK_THROW(expr)                                                     \
  do {                                                                            \
    const ::orn::result_t _orn_r = (expr);                                        \
    if (ORN_FAILED(_orn_r))                                                       \
      throw ::orn::CheckResultFailedException(__FILE__, __LINE__, _orn_r, #expr); \
  } while (false)

// Describes any exception (framework, standard or unknown) as text.
std::string DescribeException(const std::exception_ptr& e);

// Converts the current exception to a result and traces its description at
// the error level, prefixed by `message` (may be null). Must be called from
// inside a catch block; outside one it yields errors::kNoCurrentException.
result_t ExceptionToResult(ITracer* tracer, const char* message) noexcept;

}  // namespace orn
