// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "console/terminal.h"
#include "host/HostFolders.h"
#include "host/commands.h"
#include "host/index/Index.h"
#include "host/index/Indexer.h"
#include "host/progress_text.h"
#include "host/store/Library.h"
#include "platform/linux/LinuxLog.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

struct IndexOptions {
  std::vector<std::string> mail;
  bool dryRun = false;
};

// Stands in for the folders of a library and an index that are not there, when all is only counted.
class PassingFolder {
 public:
  PassingFolder() = default;
  ~PassingFolder() {
    std::error_code failure;
    if (!path_.empty()) std::filesystem::remove_all(path_, failure);
  }
  PassingFolder(const PassingFolder&) = delete;
  PassingFolder& operator=(const PassingFolder&) = delete;

  /// Made at the first call; what cannot be made is missed by whoever uses it.
  const std::string& path() {
    if (path_.empty()) {
      path_ = std::filesystem::temp_directory_path() / "tallyhive-XXXXXX";
      ::mkdtemp(path_.data());
    }
    return path_;
  }

 private:
  std::string path_;
};

// For the signal handler alone.
std::atomic<Indexer*> interruptible{nullptr};
std::atomic<bool> interrupted{false};

extern "C" void interruptIndexing(int) {
  interrupted = true;
  if (Indexer* indexer = interruptible.load()) indexer->stop();
}

void listenForInterruption() {
  struct sigaction action {};
  action.sa_handler = interruptIndexing;
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
  if (!isIgnored(SIGHUP)) ::sigaction(SIGHUP, &action, nullptr);  // nohup
}

// A bar that draws itself over on standard error, ten times a second at most; nothing where that is
// no terminal.
class ProgressBar {
 public:
  ~ProgressBar() {
    if (drawn_) console::say("\r\x1b[K");
  }
  void operator()(const IndexProgress& progress) {
    const auto now = std::chrono::steady_clock::now();
    if (!terminal_ || now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    drawn_ = true;
    const std::string text = progressText(progress);
    const std::size_t room = columns() - 1;
    console::say(fmt::format("\r\x1b[K{}{}", bar(progress, room - std::min(room, text.size())),
                             std::string_view(text).substr(0, room)));
  }

 private:
  static std::size_t columns() {
    winsize size{};
    const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return isKnown ? size.ws_col : 80;
  }

  // Empty where there is no room for one.
  static std::string bar(const IndexProgress& progress, std::size_t room) {
    constexpr std::size_t kEnds = 3;
    constexpr std::size_t kShortest = 5;
    constexpr std::size_t kLongest = 30;
    if (room < kShortest + kEnds) return {};
    const std::size_t width = std::min(room - kEnds, kLongest);
    const std::uint64_t total = std::max<std::uint64_t>(progress.total, 1);
    const std::uint64_t filled = std::min<std::uint64_t>(progress.seen * width / total, width);
    return fmt::format("[{:#<{}}{:.<{}}] ", "", filled, "", width - filled);
  }

  const bool terminal_ = ::isatty(STDERR_FILENO) == 1;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_;
};

Result<Coverage> bringUpToDate(Indexer& indexer, bool dryRun) {
  interruptible = &indexer;
  if (interrupted) indexer.stop();
  ProgressBar bar;
  Result<Coverage> coverage =
      dryRun ? indexer.count()
             : indexer.update([&bar](const IndexProgress& progress) { bar(progress); });
  interruptible = nullptr;
  return coverage;
}

// What is unlikely to be meant, one line for each folder.
void tellOfFoldersWithoutMail(const std::vector<std::string>& roots, const Library& library,
                              const Coverage& coverage, bool dryRun) {
  const auto mailboxes = library.mailboxes();
  const auto isKnown = [&](const std::string& root) {
    return !mailboxes || std::any_of(mailboxes->begin(), mailboxes->end(), [&](const auto& one) {
      return isAtOrBelow(one.folder.path, root);
    });
  };
  for (const std::string& root : roots) {
    const std::string why = library.whyUnreachable(root);
    if (!why.empty()) {
      failWith(kExitSuccess, unreachableFolderText(root, why));
    } else if (coverage.seen == 0 || (!dryRun && !isKnown(root))) {
      failWith(kExitSuccess,
               fmt::format("there is no mail in {}; name a folder with mailboxes at or below it: "
                           "folders with cur and new, *.eml or *.emlx files",
                           root));
    }
  }
}

int index(const IndexOptions& options) {
  listenForInterruption();
  const XdgFolders xdg = XdgFolders::fromEnvironment();
  HostFolders folders(xdg);
  std::unique_ptr<HostLock> lock;
  if (!options.dryRun) {
    auto taken = HostLock::take(folders.lock, "index");
    if (!taken) return failWith(kExitFailure, taken.error().description);
    lock = *std::move(taken);
  } else if (const auto holder = HostLock::holder(folders.lock)) {
    return failWith(kExitFailure, holder->refusal());
  }

  const Result<std::vector<std::string>> roots = chooseMailFolders(options.mail, xdg);
  if (!roots) return failWith(kExitFailure, roots.error().description);
  if (roots->empty()) return failWith(kExitUsage, kNoMailFolderText);
  if (!options.mail.empty() && !options.dryRun) {
    LinuxLog log("tallyhive-mailhost");
    LinuxPreferences preferences(folders.defaults, log);
    if (!rememberMailFolders(*roots, preferences)) {
      return failWith(kExitFailure, "the mail folders cannot be remembered; make " + xdg.config +
                                        " and what is in it writable for you");
    }
  }

  PassingFolder passing;
  if (options.dryRun) {
    for (std::string* file : {&folders.library, &folders.index}) {
      if (::access(file->c_str(), F_OK) != 0)
        *file = passing.path() + file->substr(file->rfind('/'));
    }
  }
  const auto library = Library::open(folders.library, Library::Access::kReadWrite);
  if (!library) return failWith(kExitFailure, library.error().description);
  const auto messages = Index::open(folders.index, Index::Access::kReadWrite);
  if (!messages) return failWith(kExitFailure, messages.error().description);

  IndexerOptions indexerOptions;
  indexerOptions.tell = [](const std::string& line) { failWith(kExitSuccess, line); };
  Indexer indexer(**library, **messages, std::move(indexerOptions));
  indexer.setRoots(*roots);
  const Result<Coverage> coverage = bringUpToDate(indexer, options.dryRun);
  if (!coverage) return failWith(kExitFailure, coverage.error().description);
  fmt::print("seen {}, indexed {}, unchanged {}, removed {}, incomplete {}, failed {}\n",
             coverage->seen, coverage->indexed, coverage->unchanged, coverage->removed,
             coverage->incomplete, coverage->failed);
  if (!coverage->stopped) tellOfFoldersWithoutMail(*roots, **library, *coverage, options.dryRun);
  if (coverage->stopped) {
    return failWith(kExitInterrupted, "interrupted; the next run goes on from here");
  }
  return kExitSuccess;
}

}  // namespace

Command addIndex(CLI::App& app, CLI::App*& subcommand) {
  subcommand = app.add_subcommand("index", "Bring library and index up to date with the mail");
  const auto options = std::make_shared<IndexOptions>();
  subcommand
      ->add_option("--mail", options->mail,
                   "A folder with mail; as often as needed, and remembered")
      ->type_name("DIR")
      ->allow_extra_args(false);
  subcommand->add_flag("--dry-run", options->dryRun, "Only count what would be done");
  return [options] { return index(*options); };
}

}  // namespace thmp
