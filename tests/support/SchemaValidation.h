#pragma once
// Checks an etsproject document against docs/etsproject.xsd with xmllint.

#include <gtest/gtest.h>

#include <string>

namespace lkdh::test {

/// Success when xmllint accepts documentText under docs/etsproject.xsd of the
/// source tree. The text is written to a temporary file and checked with
/// `xmllint --noout --schema <source>/docs/etsproject.xsd <file>`; on failure
/// the message holds xmllint's exit status and output, then the document with
/// line numbers (xmllint's messages refer to them).
///
///   EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
::testing::AssertionResult MatchesEtsprojectSchema(const std::string& documentText);

}  // namespace lkdh::test
