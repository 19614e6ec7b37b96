// A receiver of the module's publisher service that prints each detection.
#pragma once

#include <memory>

#include "host/output/event_format.h"
#include "host/output/event_output.h"
#include "orn/simple_object.h"
#include "pax/integrity_monitor_publisher.h"

namespace arvo::host {

// Called on the publishing thread (inotify delivery or scan worker);
// thread-safe through the shared LineWriter. Never throws.
class DetectionPrinter final
    : public orn::SimpleObject<mdr::agent::IFileIntegrityMonitorDetectEvent> {
 public:
  DetectionPrinter(std::shared_ptr<LineWriter> writer, OutputFormat format)
      : m_writer(std::move(writer)), m_format(format) {}

  orn::result_t OnDetectEvent(const pax::DetectEvent& event) override;

 private:
  std::shared_ptr<LineWriter> m_writer;
  const OutputFormat m_format;
};

}  // namespace arvo::host
