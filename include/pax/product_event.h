// The product event record and the host service that carries events away.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "orn/iobject.h"
#include "orn/types.h"

namespace pax {

// Value tags of a field, fixed by the product.
enum class FieldTag : std::uint32_t {
  kUInt32 = 9,
  kUInt64 = 10,
  kText8 = 14,   // narrow bytes (paths)
  kText16 = 15,  // UTF-16 (names, types, value texts)
};

class FieldValue {
 public:
  FieldValue() = default;
  static FieldValue U32(std::uint32_t v) { return FieldValue(Storage(std::in_place_index<0>, v)); }
  static FieldValue U64(std::uint64_t v) { return FieldValue(Storage(std::in_place_index<1>, v)); }
  static FieldValue Text8(orn::types::string8_t v) {
    return FieldValue(Storage(std::in_place_index<2>, std::move(v)));
  }
  static FieldValue Text16(orn::types::string16_t v) {
    return FieldValue(Storage(std::in_place_index<3>, std::move(v)));
  }

  FieldTag Tag() const {
    static constexpr FieldTag kTags[] = {FieldTag::kUInt32, FieldTag::kUInt64, FieldTag::kText8,
                                         FieldTag::kText16};
    return kTags[m_value.index()];
  }
  std::uint32_t AsU32() const { return std::get<0>(m_value); }
  std::uint64_t AsU64() const { return std::get<1>(m_value); }
  const orn::types::string8_t& AsText8() const { return std::get<2>(m_value); }
  const orn::types::string16_t& AsText16() const { return std::get<3>(m_value); }

  bool operator==(const FieldValue&) const = default;

 private:
  using Storage =
      std::variant<std::uint32_t, std::uint64_t, orn::types::string8_t, orn::types::string16_t>;
  explicit FieldValue(Storage v) : m_value(std::move(v)) {}
  Storage m_value{std::in_place_index<0>, 0u};
};

struct EventField {
  std::uint32_t fieldId = 0;  // pax::EventFieldName value
  FieldValue value;
  bool operator==(const EventField&) const = default;
};

// Header members in this order, then the ordered fields.
struct ProductEvent {
  std::uint64_t id = 0;
  std::uint32_t eventType = 0;  // pax::ProductEventType value
  std::uint32_t severity = 0;   // pax::EventSeverity value
  std::uint32_t headerWord = 2;
  std::optional<orn::types::string8_t> headerText;
  std::int64_t time = -1;  // seconds since the epoch; -1 when unknown
  std::vector<EventField> fields;

  void Add(std::uint32_t fieldId, FieldValue value) {
    fields.push_back(EventField{fieldId, std::move(value)});
  }
};

class IEventPublisher : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x6E0AB998);
  // Publishes one event; the record is copied if kept. Thread-safe.
  virtual orn::result_t Publish(const ProductEvent& event) = 0;

 protected:
  ~IEventPublisher() = default;
};

}  // namespace pax
