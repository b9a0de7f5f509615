// SPDX-License-Identifier: Apache-2.0
//
// Answers of a key management server, good and bad: what is fetched, and what is refused as a whole.
#include "fault/kms_fixture.h"

namespace kms_test {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kMessageLimit = std::size_t{1} << 20;

Q7EncPolicyInfo& active(int index) {
  return g_encPolicyArray[g_encPolicyArray_flag][index];
}

bool decryptsItsOwn(int index) {
  unsigned char sealed[256];
  unsigned char opened[256];
  unsigned int sealedSize = sizeof sealed;
  unsigned int openedSize = sizeof opened;
  const auto* clear = reinterpret_cast<const unsigned char*>("value");
  BCipherKey key = g_makeKeyArray[g_encPolicyArray_flag][index];
  return Q7_EncryptBinaryExt(sealed, &sealedSize, clear, 5, &active(index), key) == 0 && sealedSize > 5 &&
         Q7_DecryptBinaryExt(opened, &openedSize, sealed, sealedSize, &active(index), key) == 0 && openedSize == 5 &&
         std::memcmp(opened, clear, 5) == 0;
}

class KmsAnswerTest : public KmsTest {};

TEST_F(KmsAnswerTest, FetchesPoliciesWithTheirFieldsAndKeys) {
  Keys keys = somePolicies(1);
  keys.keys.push_back({.name = "Sixteen9Letters1",
                       .material = std::string(64, 'k'),
                       .fields = "v1 algorithm=9 iv=0 position=3 length=2147483647 block=1 encoding=2 "
                                 "flag=000102030405060708090a0b0c0d0eff"});
  keys.keys.push_back(
      {.name = "", .material = "1", .fields = "v1 algorithm=12 iv=1 position=0 length=0 block=0 encoding=0 flag="});
  play(keys);
  const int slot = g_encPolicyArray_flag;
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ((slot + 1) % kPolicySlots, g_encPolicyArray_flag);
  EXPECT_EQ((Words{"p0", "Sixteen9Letters1", ""}), names());

  const Q7EncPolicyInfo& second = active(1);
  EXPECT_EQ(9, second.algID);
  EXPECT_EQ(0, second.ivMode);
  EXPECT_EQ(3, second.encPos);
  EXPECT_EQ(2147483647, second.encLen);
  EXPECT_EQ(1, second.blockMode);
  EXPECT_EQ(2, second.strMode);
  ASSERT_EQ(16, second.encFlagLen);
  EXPECT_EQ(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\xff", 16),
            std::string(second.encFlag, 16));
  ASSERT_EQ(64, second.keyLength);
  EXPECT_EQ(std::string(64, 'k'), std::string(second.columnKey, 64));
  EXPECT_EQ(1, active(2).keyLength);
  EXPECT_EQ(0, active(2).encFlagLen);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(decryptsItsOwn(i)) << i;
  }
}

TEST_F(KmsAnswerTest, FetchesNoneOneAndAFullTable) {
  for (const std::size_t count : {std::size_t{1}, std::size_t{0}, std::size_t{2000}}) {
    play(somePolicies(count));
    ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
    ASSERT_EQ(static_cast<int>(count), g_numberOfEncPolicy[g_encPolicyArray_flag]);
  }
  EXPECT_STREQ("p1999", active(1999).policyID);
  EXPECT_TRUE(decryptsItsOwn(1999));
}

TEST_F(KmsAnswerTest, OneMoreThanAFullTableIsRefused) {
  usePolicies();
  play(somePolicies(2001));
  expectRefused({"more than 2000 policies"});
}

TEST_F(KmsAnswerTest, UnknownTagsAreSkipped) {
  const Wire unknown = text(0x54abcd, "of another vendor") + structure(0x42fffe, integer(0x540001, 7)) +
                       item(0x540002, 10, bigEndian(1, 4)) + item(0x540003, 4, bigEndian(1, 8));
  Keys keys = somePolicies(3);
  for (Key& key : keys.keys) {
    key.moreAttributes = unknown + attribute("x-of-this-server", text(0x42000b, "anything")) +
                         attribute("Application Specific Information",
                                   structure(0x42000b, text(0x420003, "another") + text(0x420002, "anything")));
    key.moreOfBlock = unknown;
  }
  play(Script{.reply = [&](const Wire& request) {
    const auto operations = operationsOf(request);
    Wire items = unknown;
    for (const Asked& asked : operations) {
      items += success(asked, unknown + keys.payload(asked)) + unknown;
    }
    return answer(items, operations.size());
  }});
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ((Words{"p0", "p1", "p2"}), names());
}

// Servers without batches, and with small ones.
TEST_F(KmsAnswerTest, SmallerBatchesAreAskedForWhereLargeOnesAreRefused) {
  for (const std::size_t most : {std::size_t{1}, std::size_t{7}}) {
    for (const std::uint32_t reason : {0x02u, 0x04u, 0x08u}) {
      const Keys keys = somePolicies(20);
      play(Script{.reply = [keys, most, reason](const Wire& request) {
        return operationsOf(request).size() > most ? refusal(reason, "too much") : keys(request);
      }});
      ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
      ASSERT_EQ(20u, names().size());
      EXPECT_STREQ("p19", active(19).policyID);
      EXPECT_TRUE(decryptsItsOwn(19));
    }
  }
}

// One policy of many that is not as it must be.
struct BadPolicy {
  const char* name;
  void (*spoil)(Key& key);
  Words words;
};

std::ostream& operator<<(std::ostream& out, const BadPolicy& bad) {
  return out << bad.name;
}

class KmsBadPolicyTest : public KmsTest, public ::testing::WithParamInterface<BadPolicy> {};

TEST_P(KmsBadPolicyTest, IsRefusedWithAllOthers) {
  usePolicies();
  Keys keys = somePolicies(5);
  GetParam().spoil(keys.keys[3]);
  play(keys);
  Words words = GetParam().words;
  words.push_back("No policies were fetched");
  expectRefused(words);
}

const BadPolicy kBadPolicies[] = {
    {"NameOf17Bytes", [](Key& k) { k.name = "SeventeenLetters1"; }, {"key '4' named 'SeventeenLetters1'", "16 bytes"}},
    {"NameWithASpace", [](Key& k) { k.name = "a b"; }, {"key '4' named 'a b'", "letters and digits"}},
    {"NameWithAZero", [](Key& k) { k.name = std::string("p\0q", 3); }, {"named 'p?q'", "letters and digits"}},
    {"DuplicateName", [](Key& k) { k.name = "p1"; }, {"two policies named 'p1'"}},
    {"NoName", [](Key& k) { k.withName = false; }, {"key '4'", "no Name"}},
    {"TwoNames",
     [](Key& k) {
       k.moreAttributes = attribute("Name", structure(0x42000b, text(0x420055, "other") + enumeration(0x420054, 1)));
     },
     {"key '4'", "more than one Name"}},
    {"NoFields",
     [](Key& k) { k.withFields = false; },
     {"named 'p3'", "no Application Specific Information", "orvanta-policy"}},
    {"FieldsOfAnother", [](Key& k) { k.nameSpace = "orvanta"; }, {"named 'p3'", "no Application Specific Information"}},
    {"FieldsTwice",
     [](Key& k) {
       k.moreAttributes = attribute("Application Specific Information",
                                    structure(0x42000b, text(0x420003, "orvanta-policy") + text(0x420002, k.fields)));
     },
     {"named 'p3'", "more than one text of policy fields"}},
    {"NoState", [](Key& k) { k.withState = false; }, {"named 'p3'", "no State"}},
    {"NotActive", [](Key& k) { k.state = 3; }, {"named 'p3'", "not active"}},
    {"FieldMissing",
     [](Key& k) { k.fields = "v1 algorithm=2 iv=1 position=0 length=0 block=5 encoding=1"; },
     {"named 'p3'", "'flag' is missing"}},
    {"EmptyFields", [](Key& k) { k.fields = ""; }, {"named 'p3'", "version v1"}},
    {"LaterFields", [](Key& k) { k.fields[1] = '2'; }, {"named 'p3'", "version v1"}},
    {"Algorithm", [](Key& k) { k.fields.replace(k.fields.find("=2"), 2, "=21"); }, {"'algorithm' is out of range"}},
    {"ReservedAlgorithm",
     [](Key& k) { k.fields.replace(k.fields.find("=2"), 2, "=16"); },
     {"algorithm is not offered"}},
    {"NegativePosition",
     [](Key& k) { k.fields.replace(k.fields.find("n=0"), 3, "n=-1"); },
     {"'position' is out of range"}},
    {"BlockMode", [](Key& k) { k.fields.replace(k.fields.find("k=5"), 3, "k=12"); }, {"'block' is out of range"}},
    {"RandomEcb", [](Key& k) { k.fields.replace(k.fields.find("k=5"), 3, "k=0"); }, {"no IV that could be random"}},
    {"FlagOf17Bytes", [](Key& k) { k.fields += std::string(30, '0'); }, {"'flag' is out of range"}},
    {"NoKey", [](Key& k) { k.material = ""; }, {"named 'p3'", "0 bytes"}},
    {"KeyOf65Bytes", [](Key& k) { k.material.resize(65, 'x'); }, {"named 'p3'", "65 bytes"}},
    {"KeyNotOfItsLength", [](Key& k) { k.length = 128; }, {"named 'p3'", "Cryptographic Length"}},
    {"KeyInAnotherForm", [](Key& k) { k.format = 7; }, {"named 'p3'", "raw"}},
    {"WrappedKey",
     [](Key& k) { k.moreOfBlock = structure(0x420046, enumeration(0x42009e, 1)); },
     {"named 'p3'", "wrapped"}},
    {"NoSymmetricKey", [](Key& k) { k.objectType = 7; }, {"named 'p3'", "symmetric"}},
};

INSTANTIATE_TEST_SUITE_P(Policies, KmsBadPolicyTest, ::testing::ValuesIn(kBadPolicies),
                         [](const auto& info) { return info.param.name; });

// An answer that is not as it must be, in place of the one to the request of policies' attributes and keys.
struct BadAnswer {
  const char* name;
  Wire (*make)(const Keys& keys, const Wire& request);
  Words words;
};

std::ostream& operator<<(std::ostream& out, const BadAnswer& bad) {
  return out << bad.name;
}

class KmsBadAnswerTest : public KmsTest, public ::testing::WithParamInterface<BadAnswer> {};

TEST_P(KmsBadAnswerTest, IsRefused) {
  usePolicies();
  const Keys keys = somePolicies(5);
  Peer& peer = play(Script{.reply = [keys](const Wire& request) {
    return operationsOf(request).size() == 1 ? keys(request) : GetParam().make(keys, request);
  }});
  expectRefused(GetParam().words);
  EXPECT_EQ(3, peer.requests());
}

Wire nested(int depth) {
  Wire inner;
  for (int i = 0; i < depth; ++i) {
    inner = structure(0x42007c, inner);
  }
  return inner;
}

Wire withLength(Wire message, std::size_t length) {
  return message.replace(4, 4, bigEndian(length, 4));
}

// The whole answer, with the items that `change` makes of each operation.
template <typename Change>
Wire changed(const Wire& request, const Change& change) {
  const auto operations = operationsOf(request);
  Wire items;
  for (std::size_t i = 0; i < operations.size(); ++i) {
    items += change(operations[i], i);
  }
  return answer(items, operations.size());
}

const BadAnswer kBadAnswers[] = {
    {"NoKmip",
     [](const Keys&, const Wire&) { return Wire("HTTP/1.1 400 Bad Request\r\n\r\n"); },
     {"not a KMIP answer"}},
    {"Overlong",
     [](const Keys& k, const Wire& r) { return withLength(k(r), kMessageLimit); },
     {"longer than 1048576 bytes"}},
    {"HugeLength",
     [](const Keys& k, const Wire& r) { return withLength(k(r), 0xfffffff8); },
     {"longer than 1048576 bytes"}},
    {"ShorterThanItsItems", [](const Keys& k, const Wire& r) { return withLength(k(r), 64); }, {"answer"}},
    {"NotWholeItems", [](const Keys& k, const Wire& r) { return withLength(k(r), k(r).size() - 8 - 3); }, {"answer"}},
    {"ItemOverTheEnd",
     [](const Keys& k, const Wire& r) {
       Wire w = k(r);
       w.replace(12, 4, bigEndian(kMessageLimit * 2, 4));
       return w;
     },
     {"Response Header is longer than what it is in"}},
    {"Empty", [](const Keys&, const Wire&) { return structure(0x42007b, ""); }, {"Response Header is missing"}},
    {"DeeplyNested",
     [](const Keys&, const Wire&) { return structure(0x42007b, nested(20000)); },
     {"nested more than 16 deep"}},
    {"JustTooDeep",
     [](const Keys&, const Wire&) { return structure(0x42007b, nested(16)); },
     {"nested more than 16 deep"}},
    {"ManyItems",
     [](const Keys&, const Wire&) {
       Wire w;
       while (w.size() < 900000) w += item(0x420094, 7, "");
       return structure(0x42007b, w);
     },
     {"more than 32768 items"}},
    {"TypeOfNoItem",
     [](const Keys& k, const Wire& r) {
       Wire w = k(r);
       w[11] = 11;
       return w;
     },
     {"type that KMIP does not have"}},
    {"TypeZero",
     [](const Keys& k, const Wire& r) {
       Wire w = k(r);
       w[11] = 0;
       return w;
     },
     {"type that KMIP does not have"}},
    {"HeaderOfWrongType",
     [](const Keys&, const Wire&) { return structure(0x42007b, text(0x42007a, "x")); },
     {"Response Header is of the wrong type"}},
    {"IntegerOfEightBytes",
     [](const Keys&, const Wire&) { return structure(0x42007b, item(0x42000d, 2, Wire(8, '\1'))); },
     {"length that its type can't have"}},
    {"StatusOfWrongType",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return structure(0x42000f, enumeration(0x42005c, a.operation) + bytes(0x420093, a.id) + integer(0x42007f, 0));
       });
     },
     {"Result Status is of the wrong type"}},
    {"StatusMissing",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return structure(0x42000f, enumeration(0x42005c, a.operation) + bytes(0x420093, a.id));
       });
     },
     {"Result Status is missing"}},
    {"PayloadMissing",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return structure(0x42000f,
                          enumeration(0x42005c, a.operation) + bytes(0x420093, a.id) + enumeration(0x42007f, 0));
       });
     },
     {"Response Payload is missing"}},
    {"PayloadOfWrongType",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return structure(0x42000f, enumeration(0x42005c, a.operation) + bytes(0x420093, a.id) +
                                        enumeration(0x42007f, 0) + text(0x42007c, "x"));
       });
     },
     {"Response Payload is of the wrong type"}},
    {"PayloadEmpty",
     [](const Keys&, const Wire& r) { return changed(r, [](const Asked& a, std::size_t) { return success(a, ""); }); },
     {"key '1'", "Unique Identifier is missing"}},
    {"NameOfWrongType",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return success(a, text(0x420094, a.identifier) + attribute("Name", text(0x42000b, "p1")));
       });
     },
     {"Attribute Value is of the wrong type"}},
    {"StateOfWrongType",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return success(a, text(0x420094, a.identifier) + attribute("State", integer(0x42000b, 2)));
       });
     },
     {"Attribute Value is of the wrong type"}},
    {"KeyOfWrongType",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](const Asked& a, std::size_t) {
         return success(
             a, a.operation != 0x0a
                    ? k.payload(a)
                    : enumeration(0x420057, 2) + text(0x420094, a.identifier) +
                          structure(0x42008f,
                                    structure(0x420040, enumeration(0x420042, 1) +
                                                            structure(0x420045, text(0x420043, "SecretMaterial")))));
       });
     },
     {"Key Material is of the wrong type"}},
    {"OtherVersion",
     [](const Keys& k, const Wire& r) {
       return answer(success(operationsOf(r)[0], k.payload(operationsOf(r)[0])), 1, protocol(2, 0));
     },
     {"KMIP 2.0", "KMIP 1.2 was asked for"}},
    {"OtherMinorVersion",
     [](const Keys& k, const Wire& r) {
       return answer(success(operationsOf(r)[0], k.payload(operationsOf(r)[0])), 1, protocol(1, 1));
     },
     {"KMIP 1.1"}},
    {"CountTooHigh",
     [](const Keys& k, const Wire& r) {
       const auto a = operationsOf(r)[0];
       return answer(success(a, k.payload(a)), 10);
     },
     {"as many items as it says"}},
    {"CountNegative",
     [](const Keys& k, const Wire& r) {
       const auto a = operationsOf(r)[0];
       return structure(0x42007b,
                        structure(0x42007a, protocol(1, 2) + integer(0x42000d, -1)) + success(a, k.payload(a)));
     },
     {"as many items as it says"}},
    {"ItemsMissing",
     [](const Keys& k, const Wire& r) {
       const auto a = operationsOf(r)[0];
       return answer(success(a, k.payload(a)), 1);
     },
     {"does not answer every operation"}},
    {"NoItems", [](const Keys&, const Wire&) { return answer("", 0); }, {"does not answer every operation"}},
    {"ItemTwice",
     [](const Keys& k, const Wire& r) {
       const auto a = operationsOf(r)[0];
       return answer(success(a, k.payload(a)) + success(a, k.payload(a)), 2);
     },
     {"answers an operation twice"}},
    {"ItemNotAskedFor",
     [](const Keys& k, const Wire& r) {
       auto a = operationsOf(r)[0];
       a.id = "else";
       return answer(success(a, k.payload(a)), 1);
     },
     {"not asked for"}},
    {"OtherOperation",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](Asked a, std::size_t) {
         const Wire p = k.payload(a);
         a.operation = 8;
         return success(a, p);
       });
     },
     {"another operation"}},
    {"OtherKey",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](Asked a, std::size_t) {
         a.identifier = a.identifier == "2" ? "3" : a.identifier;
         return success(a, k.payload(a));
       });
     },
     {"key '2'", "another key"}},
    {"OneErrorOfMany",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](const Asked& a, std::size_t i) {
         return i == 6 ? failure(a, 0x01, "could not\nfind it") : success(a, k.payload(a));
       });
     },
     {"Get Attributes was refused", "Item Not Found", "could not?find it"}},
    {"OneKeyRefused",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](const Asked& a, std::size_t i) {
         return i == 7 ? failure(a, 0x0c, "SecretMaterial must not be shown") : success(a, k.payload(a));
       });
     },
     {"Get was refused", "Permission Denied"}},
    {"ReasonUnknown",
     [](const Keys& k, const Wire& r) {
       return changed(r, [&k](const Asked& a, std::size_t i) {
         return i == 7 ? failure(a, 0x7777, "") : success(a, k.payload(a));
       });
     },
     {"Get was refused", "reason 0x7777"}},
    {"Pending",
     [](const Keys&, const Wire& r) {
       return changed(r, [](const Asked& a, std::size_t) {
         return structure(0x42000f,
                          enumeration(0x42005c, a.operation) + bytes(0x420093, a.id) + enumeration(0x42007f, 2));
       });
     },
     {"puts the request off"}},
    {"WholeRefused",
     [](const Keys&, const Wire&) { return refusal(0x03, "SecretMaterial"); },
     {"the request was refused", "Authentication Not Successful"}},
};

INSTANTIATE_TEST_SUITE_P(Answers, KmsBadAnswerTest, ::testing::ValuesIn(kBadAnswers),
                         [](const auto& info) { return info.param.name; });

// A server that refuses every size of request ends the fetch, not in a circle.
TEST_F(KmsAnswerTest, ARefusalOfOneOperationIsFinal) {
  usePolicies();
  const Keys keys = somePolicies(3);
  play(Script{.reply = [keys](const Wire& request) {
    return operationsOf(request)[0].operation == 0x0b ? refusal(0x02, "too large") : keys(request);
  }});
  expectRefused({"Response Too Large"});
}

TEST_F(KmsAnswerTest, BadListsOfKeysAreRefused) {
  usePolicies();
  const Keys keys = somePolicies(3);
  const auto list = [&](const Wire& payload) {
    play(Script{.reply = [keys, payload](const Wire& request) {
      const auto asked = operationsOf(request)[0];
      return asked.operation == 0x08 ? answer(success(asked, payload), 1) : keys(request);
    }});
  };
  list(text(0x420094, "1") + text(0x420094, "1"));
  expectRefused({"lists key '1' twice"});
  list(text(0x420094, ""));
  expectRefused({"Unique Identifier has 0 bytes"});
  list(text(0x420094, std::string(256, 'i')));
  expectRefused({"Unique Identifier has 256 bytes"});
  list(bytes(0x420094, "1"));
  expectRefused({"Unique Identifier is of the wrong type"});
  Wire many;
  for (int i = 0; i < 2002; ++i) {
    many += text(0x420094, std::to_string(i));
  }
  list(many);
  expectRefused({"lists 2002 keys"});
}

TEST_F(KmsAnswerTest, AServerWithoutTheVersionIsRefused) {
  usePolicies();
  const auto offer = [&](const Wire& versions) {
    play(Script{
        .reply = [versions](const Wire& request) { return answer(success(operationsOf(request)[0], versions), 1); }});
  };
  offer(protocol(2, 0) + protocol(1, 4));
  expectRefused({"does not offer KMIP 1.2", "2.0, 1.4"});
  offer("");
  expectRefused({"does not offer KMIP 1.2", "none"});
  offer(structure(0x420069, integer(0x42006a, 1)));
  expectRefused({"Protocol Version Minor is missing"});
  play(Script{.reply = [](const Wire&) { return refusal(0x04, "KMIP 1.2 is not supported by the server."); }});
  expectRefused({"Discover Versions was refused", "Invalid Message", "KMIP 1.2 is not supported by the server."});
}

}  // namespace
}  // namespace kms_test
