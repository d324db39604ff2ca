// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "console/terminal.h"
#include "host/HostFolders.h"
#include "host/PluginBundle.h"
#include "host/commands.h"
#include "host/doctor/checks.h"
#include "paths/FullDiskAccess.h"
#include "platform/linux/LinuxApplication.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/LinuxFiles.h"
#include "platform/linux/LinuxIdentity.h"
#include "platform/linux/LinuxLog.h"

namespace thmp {
namespace {

using doctor::Finding;
using doctor::Findings;

struct DoctorOptions {
  std::string bundle;
  console::ColorMode color = console::ColorMode::kAuto;
};

Findings protectedFolders(const XdgFolders& xdg, const std::vector<std::string>& mailFolders) {
  LinuxLog log("tallyhive-mailhost");
  LinuxFiles files(xdg.data);
  LinuxIdentity identity(xdg.home);
  LinuxExecution execution(log);
  LinuxApplication application(xdg, execution, log);
  const THMPPathAdditions paths(identity);
  return doctor::checkProtectedFolders(FullDiskAccess(paths, files, identity, application, log),
                                       mailFolders);
}

Findings examine(const std::string& bundle) {
  const XdgFolders xdg = XdgFolders::fromEnvironment();
  const HostFolders folders(xdg);
  const std::optional<HostLock::Holder> holder = HostLock::holder(folders.lock);
  const bool serving = holder && holder->command == "serve";
  const std::chrono::duration<double> sinceEpoch =
      std::chrono::system_clock::now().time_since_epoch();
  const Date now = Date::fromUnixSeconds(sinceEpoch.count());

  Findings all;
  const auto add = [&all](const Findings& findings) {
    all.insert(all.end(), findings.begin(), findings.end());
  };
  add({doctor::checkHost(holder), doctor::checkBundle(checkPluginBundle(bundle))});
  add(doctor::checkExchange(xdg, serving, now));
  add({doctor::checkPasteboards(xdg, serving)});
  add(doctor::checkApplications(xdg, serving));
  const auto remembered = rememberedMailFolders(xdg);
  const std::vector<std::string> mailFolders =
      remembered ? *remembered : std::vector<std::string>();
  const doctor::StoreLook stores =
      doctor::checkStores(folders, mailFolders, holder.has_value(), now);
  const doctor::MailLook mail = doctor::checkMailFolders(remembered, stores.library.get());
  add(mail.findings);
  add(protectedFolders(xdg, mailFolders));
  add({doctor::checkWatches(doctor::watchLimits(), mail.folders, serving)});
  add(stores.findings);
  return all;
}

struct LevelLook {
  std::string_view word;
  std::string_view color;
};

LevelLook lookOf(Finding::Level level) {
  switch (level) {
    case Finding::Level::kOk:
      return {"ok", "\x1b[32m"};
    case Finding::Level::kWarn:
      return {"warn", "\x1b[33m"};
    case Finding::Level::kFail:
      break;
  }
  return {"fail", "\x1b[1;31m"};
}

void print(const Findings& findings, console::StandardOutput& output) {
  std::size_t widest = 0;
  for (const Finding& finding : findings) widest = std::max(widest, finding.subject.size());
  for (const Finding& finding : findings) {
    const LevelLook look = lookOf(finding.level);
    const bool color = output.hasColor();
    // Nothing is cut: a path is there to be used.
    output.write(fmt::format("{}{:<4}{}  {:<{}}  {}\n", color ? look.color : "", look.word,
                             color ? "\x1b[0m" : "", finding.subject, widest,
                             console::shown(finding.text)));
  }
  output.flush();
}

int examineAll(const DoctorOptions& options) {
  const Findings findings = examine(options.bundle);
  console::StandardOutput output(options.color);
  print(findings, output);
  const bool fails = std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.level == Finding::Level::kFail;
  });
  return fails ? kExitFailure : kExitSuccess;
}

}  // namespace

Command addDoctor(CLI::App& app, CLI::App*& subcommand) {
  subcommand = app.add_subcommand(
      "doctor", "Look for what does not work, and say what to do; changes nothing");
  const auto options = std::make_shared<DoctorOptions>();
  options->bundle = defaultPluginBundle();
  subcommand->add_option("--plug-in", options->bundle, "The plug-in's bundle")->type_name("BUNDLE");
  addColorOption(*subcommand, options->color);
  return [options] { return examineAll(*options); };
}

}  // namespace thmp
