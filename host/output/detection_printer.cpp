#include "host/output/detection_printer.h"

#include <new>

namespace arvo::host {

orn::result_t DetectionPrinter::OnDetectEvent(const pax::DetectEvent& event) {
  try {
    return m_writer->WriteLine(m_format == OutputFormat::kJson ? FormatDetectJson(event)
                                                               : FormatDetectText(event));
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

}  // namespace arvo::host
