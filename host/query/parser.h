// SPDX-License-Identifier: Apache-2.0
//
// From text to tree. Any thread; linear in the text, with a bounded stack.
//
//     query      = or , end ;
//     or         = and , { "||" , and } ;
//     and        = not , { "&&" , not } ;
//     not        = "!" , not | primary ;
//     primary    = "(" , or , ")" | constant | inrange | fieldmatch | comparison ;
//     constant   = "true" | "false" ;          (* any case; not before an operator or "[" *)
//     comparison = attr , [ brackets ] , op , [ brackets ] , value ;
//     op         = "==" | "=" | "!=" | "<" | "<=" | ">" | ">=" ;
//     inrange    = "InRange" , "(" , attr , "," , bound , "," , bound , ")" ;
//     fieldmatch = "FieldMatch" , "(" , attr , [ brackets ] , "," , value , { "," , value } , ")" ;
//     attr       = name | "*" | "**" ;
//     brackets   = "[" , modifiers , "]" ;
//     value      = ( string | word ) , [ modifiers ] | time ;
//     bound      = string | word | time ;
//     time       = "$time.iso" , "(" , ( word | string ) , ")"
//                | "$time." , period , [ "(" , [ offset ] , ")" ] ;
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "host/query/query.h"
#include "host/query/query_options.h"
#include "host/query/syntax_error.h"

namespace thmp::query {

/// How deep groups and "!" may nest.
inline constexpr std::size_t kMaxNesting = 256;
/// How many words, strings and signs a query may have. Of a value with t each two bytes count.
inline constexpr std::size_t kMaxTokens = 100'000;

/// The query that `text` says; empty, with `error` filled, when it says none. Names that no message
/// has and values of another type than their attribute are no errors.
std::optional<Query> parse(std::string_view text, const QueryOptions& options,
                           SyntaxError* error = nullptr);

}  // namespace thmp::query
