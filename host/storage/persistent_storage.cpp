#include "host/storage/persistent_storage.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "host/storage/atomic_file.h"
#include "host/storage/storage_file.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

constexpr const char* kTag = "storage\t";

// One node's data. `value`, `attached` and `persisted` are guarded by the
// core's mutex; `name` never changes. An appended node reaches the file with
// its first value: a crash between AppendNode and SetValue (or between the
// removal of an old node and the write of its successor) leaves no empty
// node behind, only the nodes that were complete.
struct NodeSlot {
  const orn::types::string8_t name;
  orn::types::blob_t value;
  bool attached = true;
  bool persisted = true;
};

// State shared by the storage object and its nodes, so that a node outlives
// the storage object safely.
class StorageCore {
 public:
  StorageCore(std::string file, orn::ITracer* tracer) : m_file(std::move(file)), m_tracer(tracer) {}

  orn::result_t Load();
  std::shared_ptr<NodeSlot> Find(const orn::types::string8_t& name);
  orn::result_t Append(const orn::types::string8_t& name, std::shared_ptr<NodeSlot>& slot);
  orn::result_t Remove(const orn::types::string8_t& name);
  orn::result_t SetValue(NodeSlot& slot, const orn::types::blob_t& value);
  orn::types::blob_t GetValue(const NodeSlot& slot);
  orn::ITracer* Tracer() const { return m_tracer.Get(); }

 private:
  // Writes the image of the persisted nodes, with `replace`'s value taken
  // from `value` and `skip` left out. Called with m_mutex held.
  orn::result_t Write(const NodeSlot* replace, const orn::types::blob_t* value,
                      const NodeSlot* skip);
  std::vector<std::shared_ptr<NodeSlot>>::iterator FindLocked(const orn::types::string8_t& name);

  const std::string m_file;
  const orn::RefPtr<orn::ITracer> m_tracer;
  std::mutex m_mutex;
  std::vector<std::shared_ptr<NodeSlot>> m_nodes;  // guarded by m_mutex
};

orn::result_t StorageCore::Load() {
  std::vector<std::uint8_t> image;
  const orn::result_t rr = ReadWholeFile(m_file, image);
  if (rr == orn::errors::kFileNotFound) {  // expected on first use: no error line
    ORN_TRACE(m_tracer.Get(), orn::kTraceLevelDetail)
        << kTag << "Storage file '" << m_file << "' does not exist yet: starting empty";
    return orn::errors::kOk;
  }
  if (ORN_FAILED(ORN_CHECK_AS(m_tracer.Get(), rr, "ReadWholeFile(m_file, image)",
                              "Cannot read storage file '" << m_file << "'")))
    return rr;
  std::vector<StoredNode> nodes;
  std::string why;
  if (const orn::result_t r = ORN_CHECK(
          m_tracer.Get(), DecodeStorage(image, nodes, why),
          "Storage file '" << m_file << "' is damaged: " << why << "; remove or restore it");
      ORN_FAILED(r))
    return r;
  for (StoredNode& n : nodes)
    m_nodes.push_back(std::make_shared<NodeSlot>(NodeSlot{std::move(n.name), std::move(n.value)}));
  return orn::errors::kOk;
}

std::vector<std::shared_ptr<NodeSlot>>::iterator StorageCore::FindLocked(
    const orn::types::string8_t& name) {
  for (auto it = m_nodes.begin(); it != m_nodes.end(); ++it)
    if ((*it)->name == name) return it;
  return m_nodes.end();
}

std::shared_ptr<NodeSlot> StorageCore::Find(const orn::types::string8_t& name) {
  const std::lock_guard lock(m_mutex);
  const auto it = FindLocked(name);
  return it == m_nodes.end() ? nullptr : *it;
}

orn::result_t StorageCore::Append(const orn::types::string8_t& name,
                                  std::shared_ptr<NodeSlot>& slot) {
  auto fresh = std::make_shared<NodeSlot>(NodeSlot{name, {}, true, false});
  const std::lock_guard lock(m_mutex);
  m_nodes.push_back(fresh);
  slot = std::move(fresh);
  return orn::errors::kOk;
}

orn::result_t StorageCore::Remove(const orn::types::string8_t& name) {
  const std::lock_guard lock(m_mutex);
  const auto it = FindLocked(name);
  if (it == m_nodes.end()) return orn::errors::kNotFound;
  if ((*it)->persisted) {
    const orn::result_t r = Write(nullptr, nullptr, it->get());
    if (ORN_FAILED(r)) return r;
  }
  (*it)->attached = false;
  m_nodes.erase(it);
  return orn::errors::kOk;
}

orn::result_t StorageCore::SetValue(NodeSlot& slot, const orn::types::blob_t& value) {
  const std::lock_guard lock(m_mutex);
  if (!slot.attached) return orn::errors::kNotFound;
  const orn::result_t r = Write(&slot, &value, nullptr);
  if (ORN_FAILED(r)) {
    // A node whose first value could not be written never reached the file:
    // it leaves memory too, or every later FindNode would hand out its empty
    // value until the process restarts.
    if (!slot.persisted) {
      slot.attached = false;
      std::erase_if(m_nodes, [&](const auto& node) { return node.get() == &slot; });
    }
    return r;
  }
  slot.value = value;
  slot.persisted = true;
  return orn::errors::kOk;
}

orn::types::blob_t StorageCore::GetValue(const NodeSlot& slot) {
  const std::lock_guard lock(m_mutex);
  return slot.value;
}

orn::result_t StorageCore::Write(const NodeSlot* replace, const orn::types::blob_t* value,
                                 const NodeSlot* skip) {
  std::vector<StoredNodeView> views;
  views.reserve(m_nodes.size() + 1);
  for (const auto& n : m_nodes) {
    if (n.get() == skip || (!n->persisted && n.get() != replace)) continue;
    views.push_back({n->name, n.get() == replace ? value : &n->value});
  }
  return ORN_CHECK(m_tracer.Get(), ReplaceFileAtomically(m_file, EncodeStorage(views)),
                   "Cannot write storage file '" << m_file << "'");
}

class StorageNode final : public orn::SimpleObject<orn::IStorageNode> {
 public:
  StorageNode(std::shared_ptr<StorageCore> core, std::shared_ptr<NodeSlot> slot)
      : m_core(std::move(core)), m_slot(std::move(slot)) {}

  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = m_slot->name;
    return orn::errors::kOk;
  }
  orn::result_t GetValue(orn::types::blob_t& value) const override {
    value = m_core->GetValue(*m_slot);
    return orn::errors::kOk;
  }
  orn::result_t SetValue(const orn::types::blob_t& value) override {
    return m_core->SetValue(*m_slot, value);
  }

 private:
  const std::shared_ptr<StorageCore> m_core;
  const std::shared_ptr<NodeSlot> m_slot;
};

class PersistentStorage final : public orn::SimpleObject<orn::IPersistentStorage> {
 public:
  explicit PersistentStorage(std::shared_ptr<StorageCore> core) : m_core(std::move(core)) {}

  orn::result_t FindNode(const orn::types::string8_t& name, orn::IStorageNode** node) override {
    return Guarded(node, [&] {
      std::shared_ptr<NodeSlot> slot = m_core->Find(name);
      if (!slot) return orn::errors::kNotFound;
      *node = orn::MakeSimple<StorageNode>(m_core, std::move(slot)).Detach();
      return orn::errors::kOk;
    });
  }
  orn::result_t AppendNode(const orn::types::string8_t& name, orn::IStorageNode** node) override {
    return Guarded(node, [&] {
      std::shared_ptr<NodeSlot> slot;
      const orn::result_t r = m_core->Append(name, slot);
      if (ORN_FAILED(r)) return r;
      *node = orn::MakeSimple<StorageNode>(m_core, std::move(slot)).Detach();
      return orn::errors::kOk;
    });
  }
  orn::result_t RemoveNode(const orn::types::string8_t& name) override {
    try {
      return m_core->Remove(name);
    } catch (...) {
      return orn::ExceptionToResult(m_core->Tracer(), kTag);
    }
  }

 private:
  // Checks the out-parameter and keeps exceptions inside.
  template <class Fn>
  orn::result_t Guarded(orn::IStorageNode** node, Fn&& fn) {
    if (!node) return orn::errors::kInvalidArgument;
    *node = nullptr;
    try {
      return fn();
    } catch (...) {
      return orn::ExceptionToResult(m_core->Tracer(), kTag);
    }
  }

  const std::shared_ptr<StorageCore> m_core;
};

}  // namespace

orn::result_t CreatePersistentStorage(const std::string& file, orn::ITracer* tracer,
                                      orn::RefPtr<orn::IPersistentStorage>& out) {
  try {
    auto core = std::make_shared<StorageCore>(file, tracer);
    if (const orn::result_t r = core->Load(); ORN_FAILED(r)) return r;
    out = orn::MakeSimple<PersistentStorage>(std::move(core));
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(tracer, kTag);
  }
}

std::string DefaultStorageFile() {
  const char* env = std::getenv("ARVO_FIM_STORAGE");
  if (env && *env) return env;
  return "/var/opt/aldervane/arvo/private/fim_storage.dat";
}

}  // namespace arvo::host
