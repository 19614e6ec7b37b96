#include "framework/exceptions.h"

#include <cxxabi.h>

#include <any>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <typeinfo>
#include <variant>

#include "framework/trace.h"

namespace orn {
namespace {

std::string TypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

void DescribeParts(std::string& out, const std::string& message, const std::string& file, int line,
                   const std::type_info& type, const PropertyBag& props) {
  out += message;
  out += ' ';
  out += file;
  out += ':';
  out += std::to_string(line);
  out += " <typeid=";
  out += TypeName(type);
  out += '>';
  if (!props.empty()) {
    out += " Properties:";
    for (const auto& [key, value] : props) {
      out += "\n  ";
      out += key;
      out += " = ";
      out += value;
    }
  }
}

std::string Hex(std::uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

result_t FromSystemError(const std::system_error& e) {
  const std::error_code& code = e.code();
  if (code == std::errc::permission_denied || code == std::errc::operation_not_permitted)
    return errors::kAccessDenied;
  if (code == std::errc::no_space_on_device) return errors::kOutOfSpace;
  if (code == std::errc::device_or_resource_busy ||
      code == std::errc::resource_deadlock_would_occur)
    return errors::kLocked;
  if (code == std::errc::invalid_argument) return errors::kInvalidArgument;
  return errors::kInvalidState;
}

// The result of one exception (not looking into nested ones). The
// standard library's exceptions map by type onto the seven general codes
// the conversion may yield (the pairing is ours): a failed allocation is out of
// memory; a length past a limit, a buffer too small; a refused permission,
// access denied; a value of the wrong kind or outside its domain (bad
// casts and type ids included), an invalid argument; a busy resource,
// locked; a full device, out of space; everything else the library throws
// (an empty optional, variant, function or weak pointer, a logic or runtime
// error, a plain std::exception), an invalid state. Any other exception,
// the framework's own orn::exception without a result among them, is
// unknown.
result_t ResultOf(const std::exception_ptr& e) {
  try {
    std::rethrow_exception(e);
  } catch (const std::bad_alloc&) {
    return errors::kOutOfMemory;
  } catch (const ResultCodeException& ex) {
    return ORN_FAILED(ex.Result()) ? ex.Result() : errors::kExceptionSuccessResult;
  } catch (const GetInterfaceException& ex) {
    return ORN_FAILED(ex.Result()) ? ex.Result() : errors::kExceptionSuccessResult;
  } catch (const orn::exception&) {
    return errors::kUnknownException;
  } catch (const std::length_error&) {
    return errors::kBufferTooSmall;
  } catch (const std::invalid_argument&) {
    return errors::kInvalidArgument;
  } catch (const std::out_of_range&) {
    return errors::kInvalidArgument;
  } catch (const std::domain_error&) {
    return errors::kInvalidArgument;
  } catch (const std::system_error& ex) {
    return FromSystemError(ex);
  } catch (const std::logic_error&) {
    return errors::kInvalidState;
  } catch (const std::runtime_error&) {
    return errors::kInvalidState;
  } catch (const std::bad_cast&) {  // std::bad_any_cast too
    return errors::kInvalidArgument;
  } catch (const std::bad_typeid&) {
    return errors::kInvalidArgument;
  } catch (const std::bad_optional_access&) {
    return errors::kInvalidState;
  } catch (const std::bad_variant_access&) {
    return errors::kInvalidState;
  } catch (const std::bad_function_call&) {
    return errors::kInvalidState;
  } catch (const std::bad_weak_ptr&) {
    return errors::kInvalidState;
  } catch (const std::bad_exception&) {
    return errors::kInvalidState;
  } catch (const std::exception& ex) {
    // Only the plain class itself: a type derived from it outside the
    // standard library is not a standard-library exception.
    return typeid(ex) == typeid(std::exception) ? errors::kInvalidState : errors::kUnknownException;
  } catch (...) {
    return errors::kUnknownException;
  }
}

}  // namespace

void Exception::Describe(std::string& out) const {
  PropertyBag props = m_properties;
  CollectProperties(props);
  DescribeParts(out, m_message, m_file, m_line, typeid(*this), props);
}

// "orn.result" always; for a platform code (facility 1) also "os.result",
// the operating system's error number behind it, and "os.module_result",
// the platform result the module made of it.
void ResultCodeException::CollectProperties(PropertyBag& props) const {
  props.emplace_back("orn.result", ResultToTraceText(m_result));
  if (Facility(m_result) == 1 && ORN_FAILED(m_result)) {
    props.emplace_back("os.result", std::to_string(PlatformError()));
    props.emplace_back("os.module_result", Hex(static_cast<std::uint32_t>(m_result)));
  }
}

int ResultCodeException::PlatformError() const { return ErrnoFromResult(m_result); }

int SystemException::PlatformError() const { return m_errno; }

GetInterfaceException::GetInterfaceException(iid_t iid, service_key_t key, result_t result)
    : m_iid(iid), m_key(key), m_result(result) {
  m_properties.emplace_back("orn.iid", Hex(iid));
  m_properties.emplace_back("orn.serviceKey", Hex(key));
  m_properties.emplace_back("orn.result", ResultToTraceText(result));
}

void GetInterfaceException::Describe(std::string& out) const {
  DescribeParts(out, what(), File(), Line(), typeid(*this), m_properties);
}

std::string DescribeException(const std::exception_ptr& e) {
  std::string out;
  try {
    std::rethrow_exception(e);
  } catch (const Exception& ex) {
    ex.Describe(out);
  } catch (const GetInterfaceException& ex) {
    ex.Describe(out);
  } catch (const std::exception& ex) {
    out = ex.what();
    out += " <typeid=" + TypeName(typeid(ex)) + '>';
  } catch (...) {
    out = "Unknown exception";
  }
  // A nested exception is described after its outer one.
  try {
    std::rethrow_exception(e);
  } catch (const std::nested_exception& nested) {
    if (nested.nested_ptr()) out += "\nNested: " + DescribeException(nested.nested_ptr());
  } catch (...) {
  }
  return out;
}

result_t ExceptionToResult(ITracer* tracer, const char* message) noexcept {
  const std::exception_ptr current = std::current_exception();
  if (!current) return errors::kNoCurrentException;
  const result_t r = ResultOf(current);
  try {
    if (TraceLine line(tracer, kTraceLevelError); line) {
      line.Stream() << (message ? message : "") << DescribeException(current);
    }
  } catch (...) {
    // Tracing never fails the conversion.
  }
  return r;
}

}  // namespace orn
