// SPDX-License-Identifier: Apache-2.0
#include "client/Exchange.h"

#include <utility>

namespace thmp::client {

Exchange::Exchange(std::unique_ptr<MessageFolders> folders, std::unique_ptr<Wakeups> wakeups)
    : folders_(std::move(folders)), wakeups_(std::move(wakeups)) {}

Result<std::unique_ptr<Exchange>> Exchange::open(const XdgFolders& xdg) {
  Result<std::unique_ptr<MessageFolders>> folders = MessageFolders::open(xdg);
  if (!folders) return folders.error();
  Result<std::unique_ptr<Wakeups>> wakeups = Wakeups::open();
  if (!wakeups) return wakeups.error();
  if (const Result<void> answers = (*wakeups)->watchEntries((*folders)->out(), Entries::kCome);
      !answers) {
    return answers.error();
  }
  // A request that is taken goes.
  if (const Result<void> taken = (*wakeups)->watchEntries((*folders)->in(), Entries::kGo); !taken) {
    return taken.error();
  }
  // Answers to come are told from what is there.
  (*folders)->passOverWhatIsThere();
  return std::unique_ptr<Exchange>(new Exchange(*std::move(folders), *std::move(wakeups)));
}

}  // namespace thmp::client
