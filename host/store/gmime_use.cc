// SPDX-License-Identifier: Apache-2.0
#include "host/store/gmime_use.h"

namespace thmp {

namespace {

// Never destroyed, as a parser thread may outlive the static destructors.
std::mutex& gmimeMutex() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

// Under the mutex.
std::uint64_t uses = 0;

GMimeParserOptions* makeOptions() {
  GMimeParserOptions* options = g_mime_parser_options_new();
  const char* charsets[] = {"utf-8", "windows-1252", nullptr};
  g_mime_parser_options_set_fallback_charsets(options, charsets);
  g_mime_parser_options_set_address_compliance_mode(options, GMIME_RFC_COMPLIANCE_LOOSE);
  g_mime_parser_options_set_parameter_compliance_mode(options, GMIME_RFC_COMPLIANCE_LOOSE);
  g_mime_parser_options_set_rfc2047_compliance_mode(options, GMIME_RFC_COMPLIANCE_LOOSE);
  g_mime_parser_options_set_allow_addresses_without_domain(options, TRUE);
  return options;
}

}  // namespace

std::uint64_t GMimeUse::number() { return uses; }

GMimeUse::GMimeUse() {
  gmimeMutex().lock();
  ++uses;
  static const bool ready = (g_mime_init(), true);
  static_cast<void>(ready);
}

GMimeUse::~GMimeUse() { gmimeMutex().unlock(); }

GMimeParserOptions* mimeOptions() {
  static GMimeParserOptions* const options = makeOptions();
  return options;
}

}  // namespace thmp
