// veltoctl doctor: what stands in the way, and how to mend it.
#include <algorithm>

#include "platform/foundation/Foundation.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/ExitCode.h"
#include "tools/veltoctl/Findings.h"
#include "tools/veltoctl/Output.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

const char* wordOf(Finding::Kind kind) {
  if (kind == Finding::Kind::good) return "good";
  return kind == Finding::Kind::remark ? "remark" : "bad";
}

std::string markOf(Finding::Kind kind) {
  if (kind == Finding::Kind::good) return styled(Style::green, "good  ");
  return kind == Finding::Kind::remark ? styled(Style::yellow, "remark") : styled(Style::red, "bad   ");
}

int doctor(const Context& context) {
  const auto findings = findAll();
  const bool isBad = std::ranges::any_of(findings, [](const Finding& each) { return each.kind == Finding::Kind::bad; });
  if (context.json) {
    NSMutableArray all = NSMutableArray::array();
    for (const Finding& each : findings) {
      NSMutableDictionary finding = NSMutableDictionary::dictionary();
      finding["subject"] = each.subject;
      finding["finding"] = wordOf(each.kind);
      finding["state"] = NSString::stringWithUTF8(each.state);
      if (!each.remedy.empty()) finding["remedy"] = NSString::stringWithUTF8(each.remedy);
      all.addObject(finding);
    }
    printJSON(all);
  } else {
    for (const Finding& each : findings) {
      printLine(markOf(each.kind) + "  " + each.subject + ": " + harmless(each.state));
      if (!each.remedy.empty()) printLine("        -> " + harmless(each.remedy));
    }
  }
  return static_cast<int>(isBad ? ExitCode::failure : ExitCode::success);
}

}  // namespace

void addDoctor(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("doctor", "Looks for what stands in the way, and tells how to mend it");
  command->callback([&context] { context.chosen = [&context] { return doctor(context); }; });
}

}  // namespace velto::ctl
