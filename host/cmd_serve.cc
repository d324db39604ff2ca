// SPDX-License-Identifier: Apache-2.0
#include <signal.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/HostFolders.h"
#include "host/MailKeeper.h"
#include "host/PluginBundle.h"
#include "host/adapter/HostMail.h"
#include "host/adapter/SearchEngine.h"
#include "host/adapter/Strand.h"
#include "host/commands.h"
#include "host/index/Index.h"
#include "host/index/mail_texts.h"
#include "host/local_time.h"
#include "host/store/Library.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

// Two gather at a time; strands share them fairly.
constexpr std::size_t kEngineThreads = 2;

struct ServeOptions {
  std::vector<std::string> mail;
  std::string bundle;
};

// All that serves. Engine threads and the plug-in's queue outlive main(), so it is made once, stays
// reachable and is never destroyed.
struct Host {
  Host(const XdgFolders& xdg, std::unique_ptr<HostLock> hostLock)
      : lock(std::move(hostLock)), linux(xdg) {}

  std::unique_ptr<HostLock> lock;
  LinuxPlatform linux;
  std::unique_ptr<Library> library;
  std::unique_ptr<Index> index;
  std::unique_ptr<MailKeeper> keeper;
  std::unique_ptr<HostMail> mail;
  std::unique_ptr<SearchEngine> engine;
  std::unique_ptr<Platform> platform;
};
Host* theHost = nullptr;

Result<void> openMail(Host& host, const HostFolders& folders, std::vector<std::string> roots) {
  Result<std::unique_ptr<Library>> library =
      Library::open(folders.library, Library::Access::kReadWrite);
  if (!library) return library.error();
  host.library = *std::move(library);
  Result<std::unique_ptr<Index>> index = Index::open(folders.index, Index::Access::kReadWrite);
  if (!index) return index.error();
  host.index = *std::move(index);
  host.index->setTextSource(mailTexts(*host.library));
  host.keeper =
      std::make_unique<MailKeeper>(*host.library, *host.index, std::move(roots), host.linux.log());
  return {};
}

void assemble(Host& host) {
  SearchEngineOptions options;
  options.queryOptions = queryOptionsNow;
  options.indexUnreadable = [&keeper = *host.keeper] { return keeper.indexUnreadable(); };
  host.engine = std::make_unique<SearchEngine>(*host.index, ThreadPool::create(kEngineThreads),
                                               std::move(options));
  host.mail = std::make_unique<HostMail>(*host.library);
  host.platform = std::make_unique<Platform>(host.linux.platform(*host.engine, *host.mail));
}

void received(Host& host, int signal) {
  if (signal == SIGUSR1) {
    host.linux.application().postDidBecomeActive();
    return;
  }
  host.linux.application().postWillTerminate();
  host.linux.execution().mainQueue().stop();
}

int serve(const ServeOptions& options) {
  const XdgFolders xdg = XdgFolders::fromEnvironment();
  if (Error error; !xdg.prepareRuntime(&error)) return failWith(kExitFailure, error.description);
  const HostFolders folders(xdg);
  Result<std::unique_ptr<HostLock>> lock = HostLock::take(folders.lock, "serve");
  if (!lock) return failWith(kExitFailure, lock.error().description);
  Result<std::vector<std::string>> roots = chooseMailFolders(options.mail, xdg);
  if (!roots) return failWith(kExitFailure, roots.error().description);
  if (roots->empty()) return failWith(kExitUsage, kNoMailFolderText);

  theHost = new Host(xdg, *std::move(lock));
  Host& host = *theHost;
  MainLoop& loop = host.linux.execution().mainQueue();
  // A terminal that is closed ends what was started in it, unless by nohup.
  const int hangUp = isIgnored(SIGHUP) ? SIGTERM : SIGHUP;
  loop.watchSignals({SIGTERM, SIGINT, hangUp, SIGUSR1},
                    [&host](int signal) { received(host, signal); });

  if (!options.mail.empty()) rememberMailFolders(*roots, host.linux.preferences());
  if (const Result<void> opened = openMail(host, folders, *std::move(roots)); !opened) {
    return failWith(kExitFailure, opened.error().description);
  }
  assemble(host);
  host.linux.application().setPluginBundle(options.bundle);
  if (const Result<void> started = startPlugin(options.bundle, *host.platform); !started) {
    return failWith(kExitFailure, started.error().description);
  }
  host.keeper->start();
  loop.run();
  loop.close();
  host.keeper->stop();
  host.linux.preferences().flush();
  return kExitSuccess;
}

}  // namespace

Command addServe(CLI::App& app, CLI::App*& subcommand) {
  subcommand = app.add_subcommand(
      "serve", "Load the plug-in, follow the mail and serve, until told to quit");
  const auto options = std::make_shared<ServeOptions>();
  options->bundle = defaultPluginBundle();
  subcommand
      ->add_option("--mail", options->mail,
                   "A folder with mail; as often as needed, and remembered")
      ->type_name("DIR")
      ->allow_extra_args(false);
  subcommand->add_option("--plug-in", options->bundle, "The plug-in's bundle")->type_name("BUNDLE");
  return [options] { return serve(*options); };
}

}  // namespace thmp
