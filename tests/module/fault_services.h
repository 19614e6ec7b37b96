// Fault-injecting decorators of the host services the on-demand task writes
// and reads through. Each forwards every call to the real service it wraps
// until the test arms its fault in the shared Faults record; the decorators
// add nothing else, so an interface that grows needs only its new calls
// forwarded. Thread-safe as far as the wrapped services are.
#pragma once

#include <atomic>
#include <utility>

#include "filesystem_services/sha256.h"
#include "orn/file.h"
#include "orn/persistent_storage.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"

namespace arvo::test {

struct Faults {
  std::atomic<bool> storageWrites{false};  // AppendNode, RemoveNode and SetValue fail
  std::atomic<bool> serialize{false};      // Serialize fails, writing nothing
  std::atomic<bool> hash{false};           // GetHashByIO fails
  std::atomic<int> failOpenAt{0};          // the n-th CreateFile from now fails (0: none)
  std::atomic<int> opens{0};               // CreateFile calls since failOpenAt was set

  void FailOpenAt(int n) {
    opens = 0;
    failOpenAt = n;
  }
  void Clear() {
    storageWrites = serialize = hash = false;
    FailOpenAt(0);
  }
};

inline constexpr orn::result_t kInjectedFault = orn::errors::kOutOfSpace;

class FaultyNode final : public orn::SimpleObject<orn::IStorageNode> {
 public:
  FaultyNode(orn::RefPtr<orn::IStorageNode> inner, Faults& faults)
      : m_inner(std::move(inner)), m_faults(faults) {}
  orn::result_t GetName(orn::types::string8_t& name) const override {
    return m_inner->GetName(name);
  }
  orn::result_t GetValue(orn::types::blob_t& value) const override {
    return m_inner->GetValue(value);
  }
  orn::result_t SetValue(const orn::types::blob_t& value) override {
    return m_faults.storageWrites ? kInjectedFault : m_inner->SetValue(value);
  }

 private:
  orn::RefPtr<orn::IStorageNode> m_inner;
  Faults& m_faults;
};

class FaultyStorage final : public orn::SimpleObject<orn::IPersistentStorage> {
 public:
  FaultyStorage(orn::RefPtr<orn::IPersistentStorage> inner, Faults& faults)
      : m_inner(std::move(inner)), m_faults(faults) {}
  orn::result_t FindNode(const orn::types::string8_t& name, orn::IStorageNode** node) override {
    return Wrap(m_inner->FindNode(name, node), node);
  }
  orn::result_t AppendNode(const orn::types::string8_t& name, orn::IStorageNode** node) override {
    if (m_faults.storageWrites) return kInjectedFault;
    return Wrap(m_inner->AppendNode(name, node), node);
  }
  orn::result_t RemoveNode(const orn::types::string8_t& name) override {
    return m_faults.storageWrites ? kInjectedFault : m_inner->RemoveNode(name);
  }

 private:
  // Replaces the real node handed out in *node by its decorator.
  orn::result_t Wrap(orn::result_t r, orn::IStorageNode** node) {
    if (ORN_FAILED(r)) return r;
    auto real = orn::RefPtr<orn::IStorageNode>::Adopt(*node);
    const orn::RefPtr<orn::IStorageNode> wrapped =
        orn::MakeSimple<FaultyNode>(std::move(real), m_faults);
    wrapped.CopyTo(node);
    return r;
  }
  orn::RefPtr<orn::IPersistentStorage> m_inner;
  Faults& m_faults;
};

class FaultySerializer final : public orn::SimpleObject<orn::IStorageSerializer2> {
 public:
  FaultySerializer(orn::RefPtr<orn::IStorageSerializer2> inner, Faults& faults)
      : m_inner(std::move(inner)), m_faults(faults) {}
  orn::result_t RegisterType(const orn::serial::TypeDescriptor* type) override {
    return m_inner->RegisterType(type);
  }
  orn::result_t Serialize(orn::serial::AnyDescr record, orn::IStorageNode* node,
                          std::uint32_t flags, void* reserved) override {
    if (m_faults.serialize) return orn::errors::kOutOfMemory;
    return m_inner->Serialize(record, node, flags, reserved);
  }
  orn::result_t Deserialize(orn::Any& out, orn::IStorageNode* node, std::uint32_t flags,
                            void* reserved) override {
    return m_inner->Deserialize(out, node, flags, reserved);
  }

 private:
  orn::RefPtr<orn::IStorageSerializer2> m_inner;
  Faults& m_faults;
};

class FaultyFileFactory final : public orn::SimpleObject<orn::IFileFactory> {
 public:
  FaultyFileFactory(orn::RefPtr<orn::IFileFactory> inner, Faults& faults)
      : m_inner(std::move(inner)), m_faults(faults) {}
  orn::result_t CreateFile(const char16_t* path, std::uint32_t accessMask, std::uint32_t shareMode,
                           std::uint32_t disposition, std::uint32_t flagsAndAttributes,
                           orn::IIO** io) override {
    if (++m_faults.opens == m_faults.failOpenAt) return orn::errors::kAccessDenied;
    return m_inner->CreateFile(path, accessMask, shareMode, disposition, flagsAndAttributes, io);
  }

 private:
  orn::RefPtr<orn::IFileFactory> m_inner;
  Faults& m_faults;
};

class FaultyHashProvider final
    : public orn::SimpleObject<filesystem_services::ISha256HashProvider> {
 public:
  FaultyHashProvider(orn::RefPtr<filesystem_services::ISha256HashProvider> inner, Faults& faults)
      : m_inner(std::move(inner)), m_faults(faults) {}
  orn::result_t GetHashByIO(orn::IIO* io, filesystem_services::Sha256Hash& hash) override {
    return m_faults.hash ? orn::errors::kUnexpected : m_inner->GetHashByIO(io, hash);
  }
  orn::result_t GetHashByBuffer(const void* data, std::size_t size,
                                filesystem_services::Sha256Hash& hash) override {
    return m_faults.hash ? orn::errors::kUnexpected : m_inner->GetHashByBuffer(data, size, hash);
  }

 private:
  orn::RefPtr<filesystem_services::ISha256HashProvider> m_inner;
  Faults& m_faults;
};

}  // namespace arvo::test
