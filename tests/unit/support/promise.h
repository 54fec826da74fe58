// What a test promises, beside its assertions. script/check-promises reads these lines in the sources, writes the
// tables in docs/promises from them, and fails when a test that promises something was not run or has not passed.
//
//   PROMISES("kv", "Setting");
//
//   TEST_F(KvTest, NamesAreCutToFit) {
//       PROMISE("a namespace is longer than 7 characters", "it is cut");
//
// All arguments are string literals. Nothing of this is in the compiled test.
#pragma once

// First in the body of a test, as often as it promises something: when it happens, and what happens then.
#define PROMISE(when, then) static_assert(sizeof("" when) > 1 && sizeof("" then) > 1, "says when, and what then")

// The page, docs/promises/<page>.md, and the heading in it under which what follows belongs; a page without headings is
// named alone. Between the tests it holds until the next one, in the body of a test until that body ends.
#define PROMISES(page, ...) static_assert(sizeof("" page) > 1, "" __VA_ARGS__)
