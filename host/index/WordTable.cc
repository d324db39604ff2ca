// SPDX-License-Identifier: Apache-2.0
#include "host/index/WordTable.h"

#include "host/index/words.h"

namespace thmp {

const char* const kWordTableSchema = R"(
  CREATE VIRTUAL TABLE words USING
    fts5(text, rest, content = '', columnsize = 0, detail = full, tokenize = 'tallyhive');
  CREATE VIRTUAL TABLE vocabulary USING fts5vocab(words, row);
  INSERT INTO words(words, rank) VALUES('hashsize', 33554432);
)";

namespace {

// The tokenizer has nothing to remember; SQLite wants an object all the same.
int makeTokenizer(void*, const char**, int, Fts5Tokenizer** tokenizer) {
  static char nothing = 0;
  *tokenizer = reinterpret_cast<Fts5Tokenizer*>(&nothing);
  return SQLITE_OK;
}

void freeTokenizer(Fts5Tokenizer*) {}

int tokenize(Fts5Tokenizer*, void* context, int, const char* stream, int size,
             int (*take)(void*, int, const char*, int, int, int)) {
  const std::string_view words(stream, static_cast<std::size_t>(size));
  int flags = 0;
  for (std::size_t begin = 0; begin <= words.size();) {
    std::size_t end = begin;
    while (end < words.size() && words[end] != kNextWord && words[end] != kOtherForm) ++end;
    if (end > begin) {
      const int code = take(context, flags, stream + begin, static_cast<int>(end - begin),
                            static_cast<int>(begin), static_cast<int>(end));
      if (code != SQLITE_OK) return code;
    }
    flags = end < words.size() && words[end] == kOtherForm ? FTS5_TOKEN_COLOCATED : 0;
    begin = end + 1;
  }
  return SQLITE_OK;
}

fts5_api* fullTextOf(Connection& connection) {
  fts5_api* api = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection.handle(), "SELECT fts5(?1)", -1, &statement, nullptr) ==
      SQLITE_OK) {
    sqlite3_bind_pointer(statement, 1, &api, "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
  }
  sqlite3_finalize(statement);
  return api;
}

// Words hold no quotes, so a phrase needs no escapes.
std::string expressionOf(const WordLookup& lookup) {
  const std::string column = lookup.where == WordLookup::Where::kText ? "text : " : "rest : ";
  std::string phrase;
  for (const std::string& word : lookup.phrase) {
    if (!phrase.empty()) phrase.push_back(kNextWord);
    phrase += word;
  }
  std::string expression = column + '"' + phrase + '"' + (lookup.isPrefix ? " *" : "");
  if (lookup.isPrefix && lookup.phrase.size() == 1) {
    expression += " OR " + column + '"' + kCutForm + phrase.substr(0, kLongestSure) + "\" *";
  }
  return expression;
}

}  // namespace

bool prepareWordTable(Connection& connection) {
  fts5_api* const api = fullTextOf(connection);
  if (api == nullptr) return false;
  fts5_tokenizer tokenizer{makeTokenizer, freeTokenizer, tokenize};
  return api->xCreateTokenizer(api, "tallyhive", nullptr, &tokenizer, nullptr) == SQLITE_OK;
}

bool putWords(Connection& writer, std::int64_t row, const MessageWords& words) {
  if (words.text.empty() && words.rest.empty()) return true;
  return writer.statement("INSERT INTO words(rowid, text, rest) VALUES(?, ?, ?)")
      .bind(1, row)
      .bind(2, words.text)
      .bind(3, words.rest)
      .run();
}

int findWords(Connection& reader, const WordLookup& lookup,
              const std::function<void(std::int64_t row)>& visit) {
  const std::string expression = expressionOf(lookup);
  Statement& found = reader.statement("SELECT rowid FROM words WHERE words MATCH ?");
  found.bind(1, expression);
  while (found.row()) visit(found.integer(0));
  return found.result() == SQLITE_DONE ? SQLITE_OK : found.result();
}

int forEachWord(Connection& reader, const std::function<bool(std::string_view word)>& visit) {
  Statement& word = reader.statement("SELECT term FROM vocabulary");
  bool goesOn = true;
  while (goesOn && word.row()) goesOn = visit(word.bytes(0));
  const int result = word.result();
  word.reset();
  return !goesOn || result == SQLITE_DONE ? SQLITE_OK : result;
}

}  // namespace thmp
