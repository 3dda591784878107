// `device list` and the sources, monitors and wires of a device: an aligned table for a person
// at a terminal, the JSON array of the elements for a pipe or with --json.

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <sstream>

#include "brisola/model/enum_cases.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

using Row = std::vector<std::string>;

// Columns are counted in characters: a UTF-8 continuation byte takes no column.
std::size_t columns(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string table(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
  }
  std::ostringstream out;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - columns(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);  // an empty last cell leaves no padding
    out << line << '\n';
  }
  return out.str();
}

std::string yesNo(bool value) {
  return value ? "yes" : "no";
}

std::string number(double value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

std::string endpoint(const WireEndpoint& end) {
  return std::string(enumName(end.kind)) + ":" + end.ownerID + ":" + std::to_string(end.channel);
}

struct ListOptions {
  std::string device;
  bool json = false;
};

}  // namespace

void addListCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<ListOptions>();
  // The command's rows, and its JSON written only when wanted: a table shows numbers that JSON
  // cannot carry.
  using Lister = std::function<std::pair<std::vector<Row>, std::function<std::string()>>(
      const ConfigSnapshot&)>;
  const auto list = [&app, &context, options](const std::string& group, const std::string& what,
                                              bool inDevice, Lister lister) {
    CLI::App* parent = app.get_subcommand(group);
    CLI::App* sub = parent->add_subcommand(
        "list", "Lists " + what +
                    " as a table on a terminal, else (or with --json) as the JSON array of "
                    "their records.");
    if (inDevice) {
      sub->add_option("DEVICE", options->device, "The device: id, name or id prefix.")->required();
    }
    sub->add_flag("--json", options->json, "JSON even on a terminal.");
    sub->callback([&context, options, lister] {
      const ConfigSnapshot snapshot = context.loadDocument();
      const auto [rows, array] = lister(snapshot);
      if (options->json || ::isatty(STDOUT_FILENO) == 0) {
        print(array());
      } else {
        std::cout << table(rows);
      }
    });
  };
  const auto device = [options](const ConfigSnapshot& in) -> const DeviceConfig& {
    const std::string id = Naming::device(options->device, in);
    auto it = std::find_if(in.devices.begin(), in.devices.end(),
                           [&](const DeviceConfig& d) { return d.id == id; });
    if (it == in.devices.end()) throw Failure(Exit::negative, "No device named " + options->device);
    return *it;
  };

  list("device", "the devices", false, [](const ConfigSnapshot& in) {
    std::vector<Row> rows{
        {"ID", "NAME", "ENABLED", "CHANNELS", "VOLUME", "SOURCES", "MONITORS", "SELECTED"}};
    for (const DeviceConfig& d : in.devices) {
      rows.push_back({d.id, d.name, yesNo(d.enabled), std::to_string(d.channelCount),
                      number(d.volume), std::to_string(d.sources.size()),
                      std::to_string(d.monitors.size()),
                      in.ui.selectedDeviceID == d.id ? "*" : ""});
    }
    return std::pair(rows, [&in] { return encodeJSON(in.devices); });
  });
  list("source", "a device's sources", true, [device](const ConfigSnapshot& in) {
    const DeviceConfig& d = device(in);
    std::vector<Row> rows{{"ID", "NAME", "TYPE", "ENABLED", "MUTED", "GAIN", "CHANNELS"}};
    for (const SourceConfig& s : d.sources) {
      rows.push_back({s.id, s.name, std::string(enumName(s.type)), yesNo(s.enabled), yesNo(s.muted),
                      number(s.gain), std::to_string(s.channelCount)});
    }
    return std::pair(rows, [&d] { return encodeJSON(d.sources); });
  });
  list("monitor", "a device's monitors", true, [device](const ConfigSnapshot& in) {
    const DeviceConfig& d = device(in);
    std::vector<Row> rows{{"ID", "NAME", "OUTPUT", "ENABLED", "MUTED", "GAIN", "CHANNELS"}};
    for (const MonitorConfig& m : d.monitors) {
      rows.push_back({m.id, m.name, m.deviceUID, yesNo(m.enabled), yesNo(m.muted), number(m.gain),
                      std::to_string(m.channelCount)});
    }
    return std::pair(rows, [&d] { return encodeJSON(d.monitors); });
  });
  list("wire", "a device's wires", true, [device](const ConfigSnapshot& in) {
    const DeviceConfig& d = device(in);
    std::vector<Row> rows{{"ID", "FROM", "TO"}};
    for (const Wire& w : d.wires) rows.push_back({w.id, endpoint(w.from), endpoint(w.to)});
    return std::pair(rows, [&d] { return encodeJSON(d.wires); });
  });
}

}  // namespace brisola::ctl
