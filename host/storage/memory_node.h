// A storage node that keeps its value in memory and belongs to no storage:
// what the serializer's tests and fuzz target hand it. Not thread-safe.
#pragma once

#include "orn/persistent_storage.h"
#include "orn/simple_object.h"

namespace arvo::host {

class MemoryNode final : public orn::SimpleObject<orn::IStorageNode> {
 public:
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "memory";
    return orn::errors::kOk;
  }
  orn::result_t GetValue(orn::types::blob_t& value) const override {
    value = m_value;
    return orn::errors::kOk;
  }
  orn::result_t SetValue(const orn::types::blob_t& value) override {
    m_value = value;
    return orn::errors::kOk;
  }

  orn::types::blob_t m_value;
};

}  // namespace arvo::host
