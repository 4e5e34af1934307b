#include "cli/status_report.h"

namespace tarv::cli {

json::Value statusObject(const StatusReport& report) {
  json::Value sources = json::Value::array();
  for (const StatusReport::Source& source : report.sources) {
    json::Value object = json::Value::object();
    object["id"] = source.id;
    object["label"] = source.label;
    object["root"] = source.root;
    object["records"] = source.records;
    object["state"] = source.state;
    if (source.scannedAt) object["scannedAt"] = *source.scannedAt;
    sources.push_back(std::move(object));
  }
  json::Value object = json::Value::object();
  object["configuration"] = report.configuration;
  object["records"] = report.records;
  object["sources"] = std::move(sources);
  return object;
}

std::string statusText(const StatusReport& report) {
  std::string text = "Configuration: " + report.configuration + "\nRecords: " + std::to_string(report.records);
  for (const StatusReport::Source& source : report.sources) {
    text += "\n  " + source.label + "  " + source.root + "  " + std::to_string(source.records) +
            " records  scanned " + source.scannedAt.value_or("-");
  }
  return text;
}

}  // namespace tarv::cli
