// SPDX-License-Identifier: Apache-2.0
//
// The mail application's classes as the plug-in looks them up by name: the bundle class
// "MVMailBundle", with which the plug-in registers, and the library class "MFLibrary", over the
// host's library. Any thread; the library outlives it.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "host/store/Library.h"
#include "platform/mail.h"

namespace thmp {

class HostMail : public Mail {
 public:
  explicit HostMail(const Library& library);

  std::shared_ptr<MailBundleClass> bundleClass(const std::string& name) override;
  std::shared_ptr<MailLibraryClass> libraryClass(const std::string& name) override;

  /// Whether a plug-in has registered its bundle; one that has not stays inert.
  bool isBundleRegistered() const { return *registered_; }

 private:
  const std::shared_ptr<std::atomic<bool>> registered_;
  const std::shared_ptr<MailBundleClass> bundleClass_;
  const std::shared_ptr<MailLibraryClass> libraryClass_;
};

}  // namespace thmp
