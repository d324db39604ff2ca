// SPDX-License-Identifier: Apache-2.0
//
// A whole platform in memory, for tests of everything above the boundary.
//
// Nothing happens by itself: no thread, no time, no disk. A test sets the scene, makes what it
// tests with platform(), and then plays the world around it:
//
//     FakePlatform fake;
//     fake.mail.addMessage(7, 1, "/mail/7.eml");
//     fake.files.writeFile("/mail/7.eml", "");
//     Platform platform = fake.platform();
//     ... make the plug-in with `platform` ...
//     fake.clientSends("com.quorvane.tallyhive.Search", {{"uniqueName", "q"}});
//     fake.runUntilIdle();                        // the watch fires, the inbox is scanned
//     fake.spotlight.query()->deliver({mailItem(7)});
//     EXPECT_EQ(fake.messagesIn(fake.outbox()).back()["name"], ...);
//
// - files: scene operations for the world outside; faults by errno number (failOnce, failAt,
//   failFromNowOn); hooks before and after each operation, and onListing to reorder, repeat or miss
//   names; a record of each access. A change of a folder fires the watches on it.
// - execution: queues and time that run when told; watches to look at, to fire, to make silent.
// - identity, preferences, application, pasteboards, log: settable, and they record what was done.
// - spotlight, mail: scripted; each optional operation can be taken away.
//
// To interleave two threads' steps, let a hook do the other thread's part. Everything is safe from
// several threads, so the same fakes serve tests with real ones. The fake outlives what it lends.
//
// Standard scene: user "ada", home "/home/ada", application support "/home/ada/.local/share" (made,
// writable), clock at 2023-11-14T22:13:20Z.
#pragma once

#include <string>
#include <vector>

#include "platform/fake/FakeApplication.h"
#include "platform/fake/FakeExecution.h"
#include "platform/fake/FakeIdentity.h"
#include "platform/fake/FakePreferences.h"
#include "platform/fake/InMemoryFileSystem.h"
#include "platform/fake/RecordingLog.h"
#include "platform/fake/RecordingPasteboards.h"
#include "platform/fake/ScriptedMail.h"
#include "platform/fake/ScriptedSpotlight.h"
#include "platform/platform.h"

namespace thmp {

struct FakePlatform {
  FakePlatform();

  /// What stands in the place of a member, which outlives the platform.
  struct Others {
    Files* files = nullptr;
    Execution* execution = nullptr;
    Preferences* preferences = nullptr;
  };
  /// References to the members below.
  Platform platform();
  /// The same but for `others`.
  Platform platform(const Others& others);

  // The folders of the exchange, in the standard application-support folder. Not made here.
  std::string dataFolder();
  std::string inbox();
  std::string outbox();

  /// A client puts `message` into the inbox under `name`, whole, in one step. Anything but a
  /// dictionary makes a message that cannot be read as one.
  void clientWrites(const std::string& name, const Value& message);
  /// A client sends a message under a new file name, which is returned. An empty `userInfo` leaves
  /// the key out.
  std::string clientSends(const std::string& messageName, const Dictionary& userInfo = {});
  /// The ".plist" files of a folder as dictionaries, in the order in which they came. One that is
  /// none gives an empty dictionary.
  std::vector<Dictionary> messagesIn(const std::string& folder) const;
  /// The payloads of the messages of that name in the outbox, in the order in which they came.
  std::vector<Dictionary> posted(const std::string& messageName);
  /// Runs all queues until nothing is due. Returns how many closures ran.
  std::size_t runUntilIdle() { return execution.runUntilIdle(); }

  InMemoryFileSystem files;
  FakeExecution execution{files};
  FakeIdentity identity;
  FakePreferences preferences;
  FakeApplication application;
  RecordingPasteboards pasteboards;
  ScriptedSpotlight spotlight;
  ScriptedMail mail;
  RecordingLog log;
};

}  // namespace thmp
