// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/operations.h"

#include <deque>
#include "base/plist.h"

namespace thmp::faults {
namespace {

using World = FaultWorld;

Dictionary named(const std::string& query, const std::string& client = "c") {
  return {{kUniqueNameKey, query}, {kClientNameKey, client}};
}

void clear(World& world, const std::string& query, const std::string& client,
           const std::string& batch) {
  Dictionary userInfo = named(query, client);
  userInfo.set(kBatchNameKey, batch);
  world.tell(kClearName, userInfo);
}

void nothing(World&) {}
void start(World& world) { world.start(); }

/// A query "q" of client "c" that runs.
void startWithQuery(World& world) {
  world.start();
  world.search("q");
}

void startWithBatches(World& world) {
  startWithQuery(world);
  const auto query = world.spotlight.query();
  world.deliver(query);
  world.deliver(query);
}

void leaveFiles(World& world) {
  world.send(kConnectName, {{kClientNameKey, "early"}});
  world.send(kSearchName, named("early-query", "early"));
  world.fake.files.writeFile(world.fake.inbox() + "/broken.plist", "no property list");
  world.fake.clientWrites("note.txt", Value("no message"));
  for (const char* name : {"/a.plist", "/b.PLIST"}) {
    const std::string bytes =
        writeBinaryPropertyList(Dictionary{{kNameKey, "leftover"}}).value_or("");
    world.fake.files.writeFile(world.fake.outbox() + name, bytes);
  }
  world.fake.files.writeFile(world.fake.outbox() + "/.x.tmp-1", "half");
}

void lockFolder(World& world) {
  world.fake.files.makeFolder(world.fake.inbox());
  world.fake.files.makeFolder(world.fake.outbox());
  world.fake.files.setWritable(world.fake.dataFolder(), false);
  world.fake.files.setWritable(world.fake.inbox(), false);
  world.application.onStartAccessing([&world](const Url&) {
    world.fake.files.setWritable(world.fake.dataFolder(), true);
    world.fake.files.setWritable(world.fake.inbox(), true);
  });
}

std::vector<Operation> starting() {
  return {
      {"StartOnNothing", nothing, start},
      {"StartOnWhatAnEarlierRunLeft", leaveFiles, start},
      {"StartInSandbox", [](World& world) { world.identity.setHostSandboxed(true); }, start},
      {"StartWithBookmark",
       [](World& world) {
         lockFolder(world);
         world.preferences.store("com.quorvane.tallyhive.mailplugin.dataURL",
                                 FakeApplication::bookmarkOf(Url::file(world.fake.dataFolder())));
       },
       start},
      {"StartThatAsksTheUser",
       [](World& world) {
         lockFolder(world);
         world.application.answerChooserWithFolder("/");
         world.application.answerChooserWithFolder(world.fake.dataFolder());
       },
       start},
      {"AccessGrantedLater",
       [](World& world) {
         lockFolder(world);
         world.start();
         world.fake.files.setWritable(world.fake.dataFolder(), true);
         world.fake.files.setWritable(world.fake.inbox(), true);
         world.send(kConnectName, {{kClientNameKey, "patient"}});
       },
       [](World& world) {
         world.application.didBecomeActive();
         world.run();
       }},
      {"SecondInstance", startWithBatches,
       [](World& world) {
         world.plugin->cancelQuery("q", "c");
         world.plugin = nullptr;
         THMPMailPlugin::createInstance(*world.process);
         world.run();
         world.plugin = world.process->instance();
       }},
  };
}

std::vector<Operation> messages() {
  return {
      {"Connect", start,
       [](World& world) {
         world.tell(kConnectName, {{kClientNameKey, "c"}});
       }},
      {"ConnectWithVersionCheck", start,
       [](World& world) {
         world.tell(
             kConnectName,
             {{kClientNameKey, "old"}, {kCheckVersionKey, true}, {kCompatibilityVersionKey, 7}});
       }},
      {"Search", start, [](World& world) { world.search("q"); }},
      {"SearchWithoutClient", start, [](World& world) { world.search("q", ""); }},
      {"SearchThatEndsItsLineage",
       [](World& world) {
         world.start();
         const Dictionary lineage{{kLineageNameKey, "l"}};
         for (const char* name : {"first", "second"}) {
           world.deliver(world.search(name, "c", lineage));
         }
       },
       [](World& world) {
         world.search("third", "c", {{kLineageNameKey, "l"}, {kQueryStringKey, "a == 1"}});
       }},
      {"SearchOfANameInUse", startWithBatches,
       [](World& world) {
         world.mayStayOut = world.pending("q");
         world.search("q");
       }},
      {"Clear", startWithBatches,
       [](World& world) { clear(world, "q", "c", world.pending("q").front()); }},
      {"ClearOfAnother", startWithBatches,
       [](World& world) {
         clear(world, "q", "stranger", world.pending("q").front());
         clear(world, "unknown", "c", world.pending("q").front());
         clear(world, "q", "c", "no-such-batch");
       }},
      {"Cancel", startWithBatches, [](World& world) { world.tell(kCancelName, named("q")); }},
      {"Terminate", startWithBatches,
       [](World& world) {
         world.tell(kTerminateName,
                    {{kClientNameKey, "c"}, {kActiveNamesKey, Array{"q", "unknown"}}});
       }},
      {"ManyMessagesInOneScan", start,
       [](World& world) {
         world.send(kConnectName, {{kClientNameKey, "one"}});
         world.fake.files.writeFile(world.fake.inbox() + "/broken.plist", "no property list");
         world.send(kSearchName, named("two"));
         world.fake.files.makeSpecial(world.fake.inbox() + "/fifo.plist");
         world.fake.clientSends("unknown", {{kClientNameKey, "three"}});
         world.send(kConnectName, {{kClientNameKey, "four"}});
         world.run();
       }},
      {"MessageThatWasBroken",
       [](World& world) {
         world.start();
         world.fake.files.writeFile(world.fake.inbox() + "/broken.plist", "no property list");
         world.run();
       },
       [](World& world) {
         world.tell(kConnectName, {{kClientNameKey, "after"}});
       }},
  };
}

std::vector<Operation> engineEvents() {
  return {
      {"Delivery", startWithQuery, [](World& world) { world.deliver(world.spotlight.query(), 3); }},
      {"DeliveryOfTwoBatches", startWithQuery,
       [](World& world) {
         std::vector<SpotlightItem> items;
         for (std::int64_t id = 1; id <= 760; ++id) {
           items.push_back(mailItem(id, {{"kMDItemPath", "/mail/found.eml"}}));
         }
         world.spotlight.query()->deliver(items);
       }},
      {"DeliveryWithoutDatabase",
       [](World& world) {
         world.fake.mail.library().libraryDatabase = [] {
           return std::shared_ptr<LibraryDatabase>(std::make_shared<ScriptedDatabase>());
         };
         startWithQuery(world);
       },
       [](World& world) { world.deliver(world.spotlight.query(), 3); }},
      {"DeliveryWithAnAttributeThatNothingHolds", startWithQuery,
       [](World& world) {
         SpotlightItem item = mailItem(7, {{"kMDItemPath", "/mail/7.eml"}});
         item.attributes.set("odd", Dictionary{{"lost", Value()}});
         world.spotlight.query()->deliver({item});
       }},
      {"DeliveryIntoAFullPool",
       [](World& world) {
         startWithQuery(world);
         for (int i = 0; i < 7; ++i) world.deliver(world.spotlight.query());
       },
       [](World& world) {
         for (const std::string& batch : world.pending("q")) clear(world, "q", "c", batch);
         world.deliver(world.spotlight.query());
       }},
      {"Removals", startWithBatches,
       [](World& world) {
         world.spotlight.query()->removed(Array{"1", 2, "3"});
       }},
      {"EndOfGathering", startWithBatches,
       [](World& world) { world.spotlight.query()->gatherEnded(); }},
      {"Completion", startWithBatches, [](World& world) { world.spotlight.query()->complete(); }},
      {"CompletionWithError", startWithBatches,
       [](World& world) {
         world.spotlight.query()->complete(Error{"CSSearchQueryErrorDomain", -2001, "x", nullptr});
       }},
  };
}

std::vector<Operation> hostEvents() {
  return {
      {"ApplicationQuits", startWithBatches,
       [](World& world) {
         world.application.endApplication("com.quorvane.tallyhive");
         world.run();
       }},
      {"HostQuits", startWithBatches,
       [](World& world) {
         world.application.willTerminate();
         world.run();
       }},
      {"HostQuitsTwiceAmidDeliveries", startWithBatches,
       [](World& world) {
         const auto query = world.spotlight.query();
         world.application.willTerminate();
         world.deliver(query);
         query->removed(Array{"1"});
         query->complete();
         world.application.willTerminate();
         world.run();
       }},
      {"InboxReplaced", start,
       [](World& world) {
         world.fake.files.rename(world.fake.inbox(), world.fake.dataFolder() + "/moved");
         world.fake.files.makeFolder(world.fake.inbox());
         world.tell(kConnectName, {{kClientNameKey, "c"}});
       }},
  };
}

std::vector<Operation> lookups() {
  return {
      {"PathOfAMessage",
       [](World& world) {
         startWithBatches(world);
         world.fake.mail.library().setMessage(99, "/mail/99.eml");
       },
       [](World& world) {
         for (const std::int64_t id : {1, 2, 99, 100, 0}) {
           world.plugin->emlxPathForMessageWithLibraryID(id);
         }
       }},
      {"LogLine", start,
       [](World& world) {
         world.process->log.log("%@ %s %999d", "received %@", std::string("text"));
         world.process->log.log(Value(), "post %@", 7);
       }},
      {"LogAtQuit",
       [](World& world) {
         world.application.setPluginInformation({{"CFBundleShortVersionString", "2.4b1"}});
         world.start();
       },
       [](World& world) { world.process->log.applyRetentionAtQuit(); }},
      {"Post", start,
       [](World& world) {
         world.plugin->postMessageName("free", Dictionary{{"key", "value"}});
         Error error;
         world.plugin->communicationCenter()->postMessageName(
             "prefixed", world.fake.posted(kPluginReadyName).front(),
             Url::file(world.fake.outbox()), "prefix", &error);
       }},
      {"DiskAccessIsAsked",
       [](World& world) {
         world.identity.setSystemVersion(2000.0);
         for (const char* folder : {"/Library/Containers/com.apple.stocks", "/Library/Safari"}) {
           world.fake.files.makeFolder(std::string("/home/ada") + folder);
         }
         world.start();
       },
       [](World& world) {
         world.process->fullDiskAccess.thmp_hasFullDiskAccess();
         world.application.didBecomeActive();
         world.process->fullDiskAccess.thmp_hasFullDiskAccess();
       }},
      {"ProtectedFoldersAreLookedFor",
       [](World& world) {
         for (const char* folder : {"/a/b", "/a/c", "/d"}) {
           world.fake.files.makeFolder(std::string("/home/ada/Library") + folder);
         }
         world.fake.files.makeLink("/home/ada/Library/link", "/home/ada/Library/a");
         world.fake.files.setReadable("/home/ada/Library/a/c", false);
         world.start();
       },
       [](World& world) {
         std::deque<std::string> folders{"/home/ada/Library", "/home/ada/Library/link"};
         while (!folders.empty()) {
           world.process->fullDiskAccess.thmp_printFDAFoldersUnderPaths(folders);
         }
       }},
      {"LinksToProtectedFolders",
       [](World& world) {
         world.fake.files.makeLink("/home/ada/link", "/home/ada/Library/HomeKit/x");
         world.start();
       },
       [](World& world) {
         std::string location;
         world.process->fullDiskAccess.thmp_isDescendantOfKnownFullDiskAccessLocation(
             "/home/ada/link", &location);
         world.process->fullDiskAccess.thmp_isAncestorOfKnownFullDiskAccessLocation("/home/ada",
                                                                                    &location);
       }},
  };
}

}  // namespace

const std::vector<Operation>& allOperations() {
  static const std::vector<Operation>& all = *new std::vector<Operation>([] {
    std::vector<Operation> made;
    for (const auto& part : {starting(), messages(), engineEvents(), hostEvents(), lookups()}) {
      made.insert(made.end(), part.begin(), part.end());
    }
    return made;
  }());
  return all;
}

}  // namespace thmp::faults
