// SPDX-License-Identifier: Apache-2.0
#include "host/PluginBundle.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace thmp {
namespace {

constexpr char kBundleBesideProgram[] =
    "lib/tallyhive-mailhost/plug-ins/TallyhiveMailPlugin.mailbundle";
constexpr char kSharedObject[] = "/Contents/Linux/TallyhiveMailPlugin.so";

Error doesNotFit(const std::string& bundle, const std::string& why) {
  return Error{"THMPHost", 2, "the plug-in bundle " + bundle + " cannot be used: " + why, nullptr};
}

}  // namespace

std::string defaultPluginBundle() {
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  return (program.parent_path().parent_path() / kBundleBesideProgram).string();
}

Result<void> startPlugin(const std::string& bundle, Platform& platform) {
  const std::string path = bundle + kSharedObject;
  std::error_code failure;
  if (!std::filesystem::is_regular_file(path, failure)) {
    return doesNotFit(bundle, "it is missing or has no " + std::string(kSharedObject).substr(1) +
                                  "; name another with --plug-in");
  }
  void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return doesNotFit(bundle, ::dlerror());
  const auto start = reinterpret_cast<PluginEntryPoint>(::dlsym(handle, kPluginEntryPointName));
  if (start == nullptr) return doesNotFit(bundle, "it is no bundle of this plug-in");
  if (!start(&platform)) return doesNotFit(bundle, "it was built for another version of this host");
  return {};
}

}  // namespace thmp
