// SPDX-License-Identifier: Apache-2.0
//
// Messages as a key management server writes and reads them, made without the engine's own encoder and decoder.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kms_test {

using Wire = std::string;

inline Wire bigEndian(std::uint64_t value, int size) {
  Wire bytes;
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift & 0xff);
  }
  return bytes;
}

inline Wire item(std::uint32_t tag, int type, const Wire& value) {
  Wire bytes = bigEndian(tag, 3) + static_cast<char>(type) + bigEndian(value.size(), 4) + value;
  bytes.resize((bytes.size() + 7) / 8 * 8, '\0');
  return bytes;
}

inline Wire structure(std::uint32_t tag, const Wire& content) {
  return item(tag, 1, content);
}
inline Wire integer(std::uint32_t tag, int value) {
  return item(tag, 2, bigEndian(static_cast<std::uint32_t>(value), 4));
}
inline Wire enumeration(std::uint32_t tag, std::uint32_t value) {
  return item(tag, 5, bigEndian(value, 4));
}
inline Wire text(std::uint32_t tag, const std::string& value) {
  return item(tag, 7, value);
}
inline Wire bytes(std::uint32_t tag, const std::string& value) {
  return item(tag, 8, value);
}

inline std::uint64_t number(const Wire& bytes) {
  std::uint64_t value = 0;
  for (const char c : bytes) {
    value = value << 8 | static_cast<unsigned char>(c);
  }
  return value;
}

// An item of a request, which is trusted to be well formed.
struct Part {
  std::uint32_t tag;
  Wire value;
};

inline std::vector<Part> parts(const Wire& content) {
  std::vector<Part> all;
  for (std::size_t at = 0; at + 8 <= content.size();) {
    const auto length = static_cast<std::size_t>(number(content.substr(at + 4, 4)));
    all.push_back({static_cast<std::uint32_t>(number(content.substr(at, 3))), content.substr(at + 8, length)});
    at += 8 + (length + 7) / 8 * 8;
  }
  return all;
}

inline std::vector<Wire> valuesOf(const Wire& content, std::uint32_t tag) {
  std::vector<Wire> values;
  for (const Part& part : parts(content)) {
    if (part.tag == tag) {
      values.push_back(part.value);
    }
  }
  return values;
}

inline Wire valueOf(const Wire& content, std::uint32_t tag) {
  const auto values = valuesOf(content, tag);
  return values.empty() ? Wire() : values.front();
}

// One operation of a request.
struct Asked {
  std::uint32_t operation;
  Wire id;          // Unique Batch Item ID
  Wire identifier;  // Unique Identifier, where there is one
  Wire payload;
};

inline std::vector<Asked> operationsOf(const Wire& request) {
  std::vector<Asked> all;
  for (const Wire& batchItem : valuesOf(valueOf(request, 0x420078), 0x42000f)) {
    const Wire payload = valueOf(batchItem, 0x420079);
    all.push_back({static_cast<std::uint32_t>(number(valueOf(batchItem, 0x42005c))), valueOf(batchItem, 0x420093),
                   valueOf(payload, 0x420094), payload});
  }
  return all;
}

inline Wire protocol(int major, int minor) {
  return structure(0x420069, integer(0x42006a, major) + integer(0x42006b, minor));
}

// A whole answer of `count` batch items.
inline Wire answer(const Wire& items, std::size_t count, const Wire& version = protocol(1, 2)) {
  return structure(0x42007b, structure(0x42007a, version + item(0x420092, 9, bigEndian(1772290798, 8)) +
                                                     integer(0x42000d, static_cast<int>(count))) +
                                 items);
}

inline Wire success(const Asked& asked, const Wire& payload) {
  return structure(0x42000f, enumeration(0x42005c, asked.operation) + bytes(0x420093, asked.id) +
                                 enumeration(0x42007f, 0) + structure(0x42007c, payload));
}

inline Wire failure(const Asked& asked, std::uint32_t reason, const std::string& message) {
  return structure(0x42000f, enumeration(0x42005c, asked.operation) + bytes(0x420093, asked.id) +
                                 enumeration(0x42007f, 1) + enumeration(0x42007e, reason) + text(0x42007d, message));
}

// What a server says of a request that it makes nothing of: no operation, and its oldest version.
inline Wire refusal(std::uint32_t reason, const std::string& message) {
  return answer(structure(0x42000f, enumeration(0x42007f, 1) + enumeration(0x42007e, reason) + text(0x42007d, message)),
                1, protocol(1, 0));
}

inline Wire attribute(const std::string& name, const Wire& value) {
  return structure(0x420008, text(0x42000a, name) + integer(0x420009, 0) + value);
}

// A key of the server's. What a test breaks is set to something else.
struct Key {
  std::string name;
  std::string material;
  std::string fields = "v1 algorithm=2 iv=1 position=0 length=0 block=5 encoding=1 flag=4b21";
  std::string nameSpace = "orvanta-policy";
  std::uint32_t state = 2;  // active
  int length = -1;          // Cryptographic Length in bits; -1 for that of the material, -2 for none
  Wire moreAttributes = {};
  Wire moreOfBlock = {};
  std::uint32_t format = 1;      // raw
  std::uint32_t objectType = 2;  // symmetric key
  bool withName = true;
  bool withFields = true;
  bool withState = true;
  std::string group = {};
};

// The key that a Register request has, not active yet.
inline Key registeredKey(const Asked& asked) {
  Key key;
  const Wire block = valueOf(valueOf(asked.payload, 0x42008f), 0x420040);
  key.material = valueOf(valueOf(block, 0x420045), 0x420043);
  key.length = static_cast<int>(number(valueOf(block, 0x42002a)));
  key.state = 1;
  for (const Wire& one : valuesOf(valueOf(asked.payload, 0x420091), 0x420008)) {
    const Wire value = valueOf(one, 0x42000b);
    if (valueOf(one, 0x42000a) == "Name") key.name = valueOf(value, 0x420055);
    if (valueOf(one, 0x42000a) == "Object Group") key.group = value;
    if (valueOf(one, 0x42000a) == "Application Specific Information") {
      key.nameSpace = valueOf(value, 0x420003);
      key.fields = valueOf(value, 0x420002);
    }
  }
  return key;
}

inline Wire attributesOf(const Asked& asked, const Key& key) {
  Wire all = text(0x420094, asked.identifier);
  if (key.withName) {
    all += attribute("Name", structure(0x42000b, text(0x420055, key.name) + enumeration(0x420054, 1)));
  }
  if (key.withState) {
    all += attribute("State", enumeration(0x42000b, key.state));
  }
  if (key.withFields) {
    all += attribute("Application Specific Information",
                     structure(0x42000b, text(0x420003, key.nameSpace) + text(0x420002, key.fields)));
  }
  return all + key.moreAttributes;
}

inline Wire keyOf(const Asked& asked, const Key& key) {
  Wire block =
      enumeration(0x420042, key.format) + structure(0x420045, bytes(0x420043, key.material)) + enumeration(0x420028, 9);
  if (key.length != -2) {
    block += integer(0x42002a, key.length >= 0 ? key.length : static_cast<int>(8 * key.material.size()));
  }
  return enumeration(0x420057, key.objectType) + text(0x420094, asked.identifier) +
         structure(0x42008f, structure(0x420040, block + key.moreOfBlock));
}

// A server's answers from its keys, whose identifiers are their numbers from 1.
struct Keys {
  std::vector<Key> keys;

  const Key& key(const Asked& asked) const { return keys.at(std::stoul(asked.identifier) - 1); }

  Wire payload(const Asked& asked) const {
    switch (asked.operation) {
      case 0x1e:  // Discover Versions
        return protocol(2, 0) + protocol(1, 4) + protocol(1, 2) + protocol(1, 0);
      case 0x08: {  // Locate
        Wire all;
        const std::size_t limit = static_cast<std::size_t>(number(valueOf(asked.payload, 0x42004f)));
        for (std::size_t i = 1; i <= keys.size() && i <= limit; ++i) {
          all += text(0x420094, std::to_string(i));
        }
        return all;
      }
      case 0x0b:  // Get Attributes
        return attributesOf(asked, key(asked));
      case 0x0a:  // Get
        return keyOf(asked, key(asked));
      default:  // Register gives the next number, the others the one that they were given
        return text(0x420094, asked.operation == 0x03 ? std::to_string(keys.size() + 1) : asked.identifier);
    }
  }

  Wire operator()(const Wire& request) const {
    const auto operations = operationsOf(request);
    Wire items;
    for (const Asked& asked : operations) {
      items += success(asked, payload(asked));
    }
    return answer(items, operations.size());
  }
};

}  // namespace kms_test
