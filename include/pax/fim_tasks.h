// Class ids of the module and the task interfaces it offers the host.
#pragma once

#include "app_core/task_manager/task/task.h"
#include "orn/iobject.h"
#include "pax/settings/fim_settings.h"

namespace pax::fim {

// Factories served by ornGetObjectFactory.
inline constexpr orn::clsid_t kIntegrityMonitorTaskClsid = 0xBD321DA2;
inline constexpr orn::clsid_t kOnDemandIntegrityMonitorTaskClsid = 0x186EA113;
// Object created directly by ornCreateObject.
inline constexpr orn::clsid_t kIntegrityMonitorPublisherServiceClsid = 0x2507FBA4;

class IIntegrityMonitorTaskConstruct : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0xFF825D6D);
  virtual orn::result_t Construct(const settings::OAFIMSettings* settings) = 0;

 protected:
  ~IIntegrityMonitorTaskConstruct() = default;
};

// Slot order SetSettings, then GetSettings (kept as the product has it).
class IIntegrityMonitorTaskSettings : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x98F74BE2);
  virtual orn::result_t SetSettings(const settings::OAFIMSettings* settings) = 0;
  virtual orn::result_t GetSettings(settings::OAFIMSettings* settings) = 0;

 protected:
  ~IIntegrityMonitorTaskSettings() = default;
};

class IOnDemandIntegrityMonitorTaskConstruct : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x5D7D8CC8);
  virtual orn::result_t Construct(const settings::ODFIMSettings* settings) = 0;

 protected:
  ~IOnDemandIntegrityMonitorTaskConstruct() = default;
};

class IOnDemandIntegrityMonitorTaskSettings : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x00579CC1);
  virtual orn::result_t GetSettings(settings::ODFIMSettings* settings) = 0;
  virtual orn::result_t SetSettings(const settings::ODFIMSettings* settings) = 0;

 protected:
  ~IOnDemandIntegrityMonitorTaskSettings() = default;
};

}  // namespace pax::fim
