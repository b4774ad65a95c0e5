#include "sha256.h"

#include <gtest/gtest.h>

namespace TARVO::SupportForm {
namespace {

// The two texts and their digests are the examples that come with the algorithm's definition.
TEST(Sha256Test, DigestsOneTextAfterAnother) {
  Sha256 sum;
  EXPECT_EQ(sum.Finish(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  sum.Add("abc");
  EXPECT_EQ(sum.Finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256Test, PartsMakeOneText) {
  Sha256 sum;
  sum.Add("abcdbcdecdefdefgefghfghighij");
  sum.Add("");
  sum.Add("hijkijkljklmklmnlmnomnopnopq");
  EXPECT_EQ(sum.Finish(), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

}  // namespace
}  // namespace TARVO::SupportForm
