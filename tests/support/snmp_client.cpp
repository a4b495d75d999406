#include "tests/support/snmp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "tests/support/process.h"

namespace made_up {

namespace {

constexpr char kCommunity[] = "public";

std::string Tagged(uint8_t tag, const std::string &content) {
  std::string text(1, static_cast<char>(tag));
  if (content.size() < 128) {
    text += static_cast<char>(content.size());
  } else {
    text += static_cast<char>(0x82);
    text += static_cast<char>(content.size() >> 8);
    text += static_cast<char>(content.size() & 0xFF);
  }
  return text + content;
}

std::string Integer(uint32_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return Tagged(2, bytes);
}

std::string ObjectIdentifier(const std::string &dotted) {
  std::vector<uint32_t> ids;
  std::istringstream parts(dotted);
  for (std::string part; std::getline(parts, part, '.');) {
    if (!part.empty()) {
      ids.push_back(static_cast<uint32_t>(std::stoul(part)));
    }
  }
  std::string bytes(1, static_cast<char>(ids.at(0) * 40 + ids.at(1)));
  for (size_t i = 2; i < ids.size(); i++) {
    std::string groups;
    for (uint32_t rest = ids[i];; rest >>= 7) {
      groups.insert(0, 1, static_cast<char>((rest & 0x7F) | (groups.empty() ? 0 : 0x80)));
      if (rest < 128) {
        break;
      }
    }
    bytes += groups;
  }
  return Tagged(6, bytes);
}

// Takes one tagged value from the front of text; false at the end or when it is cut off.
bool Take(std::string *text, uint8_t *tag, std::string *content) {
  if (text->size() < 2) {
    return false;
  }
  auto byte = [&](size_t at) { return static_cast<uint8_t>((*text)[at]); };
  size_t length = byte(1), header = 2;
  if (length >= 128) {
    size_t count = length & 0x7F;
    if (count == 0 || count > 3 || text->size() < 2 + count) {
      return false;
    }
    length = 0;
    for (size_t i = 0; i < count; i++) {
      length = length << 8 | byte(2 + i);
    }
    header += count;
  }
  if (text->size() < header + length) {
    return false;
  }
  *tag = byte(0);
  *content = text->substr(header, length);
  text->erase(0, header + length);
  return true;
}

int64_t Number(const std::string &bytes) {
  int64_t value = !bytes.empty() && (bytes[0] & 0x80) != 0 ? -1 : 0;
  for (char byte : bytes) {
    value = value * 256 + static_cast<uint8_t>(byte);
  }
  return value;
}

// The answer in a packet when it is the response to that request.
std::optional<Answer> Parse(std::string packet, uint32_t request) {
  Answer answer;
  uint8_t tag;
  std::string message, field, pdu, list, binding;
  if (!Take(&packet, &tag, &message) || !Take(&message, &tag, &field) ||
      !Take(&message, &tag, &field) || !Take(&message, &tag, &pdu) || tag != 0xA2) {
    return {};
  }
  if (!Take(&pdu, &tag, &field) || static_cast<uint32_t>(Number(field)) != request ||
      !Take(&pdu, &tag, &field)) {
    return {};
  }
  answer.error = static_cast<int>(Number(field));
  if (!Take(&pdu, &tag, &field) || !Take(&pdu, &tag, &list) || !Take(&list, &tag, &binding) ||
      !Take(&binding, &tag, &field) || !Take(&binding, &answer.tag, &answer.octets)) {
    return {};
  }
  answer.number = Number(answer.octets);
  return answer;
}

}  // namespace

std::optional<Answer> QuickGet(const std::string &oid, double seconds, bool next) {
  static uint32_t last_request = 1000;
  uint32_t request = ++last_request;
  std::string binding = Tagged(0x30, ObjectIdentifier(oid) + Tagged(5, ""));
  std::string pdu = Tagged(next ? 0xA1 : 0xA0,
                           Integer(request) + Integer(0) + Integer(0) + Tagged(0x30, binding));
  std::string packet = Tagged(0x30, Integer(1) + Tagged(4, kCommunity) + pdu);

  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(161);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::optional<Answer> answer;
  double begin = Now();
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
      send(fd, packet.data(), packet.size(), 0) == static_cast<ssize_t>(packet.size())) {
    for (double left = seconds; !answer && left > 0; left = begin + seconds - Now()) {
      pollfd ready{fd, POLLIN, 0};
      char buffer[65536];
      if (poll(&ready, 1, static_cast<int>(left * 1000) + 1) <= 0) {
        continue;
      }
      ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
      if (got < 0) {
        break;  // nobody listens
      }
      answer = Parse(std::string(buffer, static_cast<size_t>(got)), request);
    }
  }
  if (answer) {
    answer->seconds = Now() - begin;
  }
  close(fd);
  return answer;
}

}  // namespace made_up
