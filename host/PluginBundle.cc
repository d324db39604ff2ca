// SPDX-License-Identifier: Apache-2.0
#include "host/PluginBundle.h"

#include <dlfcn.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "base/plist.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp {
namespace {

constexpr char kBundleBesideProgram[] =
    "lib/tallyhive-mailhost/plug-ins/TallyhiveMailPlugin.mailbundle";
constexpr char kSharedObject[] = "/Contents/Linux/TallyhiveMailPlugin.so";
constexpr char kInformation[] = "/Contents/Info.plist";
constexpr PropertyListLimits kInformationLimits{std::size_t{1} << 20, 100'000, 64};
constexpr char kOtherHost[] = "it was built for another version of this host";

Error doesNotFit(const std::string& bundle, const std::string& why) {
  return Error{"THMPHost", 2,
               "the plug-in bundle " + bundle + " cannot be used: " + why +
                   "; install it anew, or name another with --plug-in BUNDLE",
               nullptr};
}

Result<PluginEntryPoint> loadPlugin(const std::string& bundle) {
  const std::string path = bundle + kSharedObject;
  std::error_code failure;
  if (!std::filesystem::is_regular_file(path, failure)) {
    return doesNotFit(bundle, "it is missing or has no " + std::string(kSharedObject).substr(1));
  }
  void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return doesNotFit(bundle, ::dlerror());
  const auto start = reinterpret_cast<PluginEntryPoint>(::dlsym(handle, kPluginEntryPointName));
  if (start == nullptr) return doesNotFit(bundle, "it is no bundle of this plug-in");
  return start;
}

}  // namespace

std::string defaultPluginBundle() {
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  return (program.parent_path().parent_path() / kBundleBesideProgram).string();
}

Result<std::string> checkPluginBundle(const std::string& bundle) {
  if (const Result<PluginEntryPoint> start = loadPlugin(bundle); !start) return start.error();
  Error error;
  const auto bytes =
      LinuxFiles("").readFile(bundle + kInformation, kInformationLimits.maxBytes, &error);
  const auto read = bytes ? readPropertyList(*bytes, kInformationLimits, &error) : std::nullopt;
  if (!read) return doesNotFit(bundle, error.description);
  const Dictionary information = read->asDictionary().value_or(Dictionary());
  const auto version = information["CFBundleShortVersionString"].asText();
  if (!version) return doesNotFit(bundle, "it does not tell its version");
  if (information["THMPPlatformInterfaceVersion"] != Value(kPlatformInterfaceVersion)) {
    return doesNotFit(bundle, kOtherHost);
  }
  return std::string(*version);
}

Result<void> startPlugin(const std::string& bundle, Platform& platform) {
  const Result<PluginEntryPoint> start = loadPlugin(bundle);
  if (!start) return start.error();
  if (!(*start)(&platform)) return doesNotFit(bundle, kOtherHost);
  return {};
}

}  // namespace thmp
