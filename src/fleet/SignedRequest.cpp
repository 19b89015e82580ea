// Command requests signed with their sender's own Ed25519 key.
#include "zqfleet/SignedRequest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>

namespace zqfleet {

namespace {

constexpr size_t kKeyBytes = 32, kSigBytes = 64;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// `bytes` bytes from exactly 2*bytes hex digits; empty otherwise.
std::string from_hex(const std::string& text, size_t bytes) {
  if (text.size() != 2 * bytes) return "";
  std::string out;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = hex_digit(text[i]), lo = hex_digit(text[i + 1]);
    if (hi < 0 || lo < 0) return "";
    out += static_cast<char>(hi * 16 + lo);
  }
  return out;
}

std::string to_hex(const unsigned char* data, size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 15];
  }
  return out;
}

bool valid_name(const std::string& name) {
  return !name.empty() && name.size() <= 64 &&
         name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-@") ==
             std::string::npos;
}

// "YYYY-MM-DDTHH:MM:SS[.digits]Z" as seconds since 1970; NAN otherwise.
double parse_utc(const std::string& text) {
  static const char pattern[] = "dddd-dd-ddTdd:dd:dd";
  if (text.size() < 20 || text.size() > 40) return NAN;
  for (size_t i = 0; i + 1 < sizeof pattern; ++i) {
    const bool ok = pattern[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == pattern[i];
    if (!ok) return NAN;
  }
  tm t{};
  std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
              &t.tm_sec);
  size_t p = 19;
  double fraction = 0, scale = 0.1;
  if (text[p] == '.') {
    for (++p; p < text.size() && text[p] >= '0' && text[p] <= '9'; ++p, scale /= 10) fraction += (text[p] - '0') * scale;
  }
  if (p + 1 != text.size() || text[p] != 'Z' || t.tm_mon < 1 || t.tm_mon > 12 || t.tm_mday < 1 || t.tm_mday > 31 ||
      t.tm_hour > 23 || t.tm_min > 59 || t.tm_sec > 60) {
    return NAN;
  }
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  return static_cast<double>(timegm(&t)) + fraction;
}

bool ed25519_verify(const std::string& key, const std::string& sig, const std::string& text) {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(key.data()),
                                  key.size()),
      &EVP_PKEY_free);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  return pkey && ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, pkey.get()) == 1 &&
         EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                          reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1;
}

}  // namespace

SignedRequest::SignedRequest(int window_s) : window_(window_s) {}

bool SignedRequest::AddKey(const std::string& name, const std::string& hex) {
  const std::string raw = from_hex(hex, kKeyBytes);
  if (raw.empty() || !valid_name(name)) return false;
  keys_.emplace(name, raw);
  return true;
}

bool SignedRequest::LoadKeys(const std::string& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = path + ": cannot be read";
    return false;
  }
  SignedRequest loaded(window_);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    const size_t eq = line.find('=');
    auto trim = [](std::string s) {
      const size_t a = s.find_first_not_of(" \t\r"), b = s.find_last_not_of(" \t\r");
      return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
    };
    if (trim(line).empty()) continue;
    if (eq == std::string::npos || !loaded.AddKey(trim(line.substr(0, eq)), trim(line.substr(eq + 1)))) {
      error = path + ":" + std::to_string(number) + ": expected NAME = 64 hex digits of an Ed25519 public key";
      return false;
    }
  }
  keys_.swap(loaded.keys_);
  return true;
}

std::string SignedRequest::SignedText(const FleetCommand& cmd) {
  return "zq-cmd-1\n" + cmd.station + "\n" + cmd.user + "\n" + cmd.time + "\n" + cmd.nonce + "\n" + cmd.line;
}

bool SignedRequest::Verify(const FleetCommand& cmd, const std::string& station_id, double now, std::string& error) {
  if (cmd.sig.empty() || cmd.user.empty() || cmd.time.empty() || cmd.nonce.empty()) {
    error = "not signed";
    return false;
  }
  if (cmd.station != station_id) {
    error = "signed for station '" + cmd.station + "'";
    return false;
  }
  const double when = parse_utc(cmd.time);
  if (std::isnan(when) || std::fabs(when - now) > window_) {
    error = "time stamp '" + cmd.time + "' outside the window of " + std::to_string(window_) + " s";
    return false;
  }
  if (cmd.nonce.size() < 16 || cmd.nonce.size() > 64 || cmd.nonce.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    error = "nonce: 16 to 64 hex digits";
    return false;
  }
  const std::string sig = from_hex(cmd.sig, kSigBytes);
  if (sig.empty()) {
    error = "sig: 128 hex digits";
    return false;
  }
  while (!expiry_.empty() && expiry_.begin()->first < now) {
    nonces_.erase(expiry_.begin()->second);
    expiry_.erase(expiry_.begin());
  }
  if (nonces_.count(cmd.nonce) != 0) {
    error = "nonce already used";
    return false;
  }
  if (nonces_.size() >= kMaxNonces) {
    error = "too many signed requests in the window";
    return false;
  }
  const std::string text = SignedText(cmd);
  const auto users = keys_.equal_range(cmd.user);
  if (users.first == users.second) {
    error = "no key registered for '" + cmd.user + "'";
    return false;
  }
  for (auto it = users.first; it != users.second; ++it) {
    if (ed25519_verify(it->second, sig, text)) {
      nonces_.emplace(cmd.nonce, when + window_);
      expiry_.emplace(when + window_, cmd.nonce);
      return true;
    }
  }
  error = "bad signature";
  return false;
}

bool SignedRequest::RegisterKey(const std::string& keys_path, const std::string& name, const std::string& pem,
                                std::string& error) {
  if (!valid_name(name)) {
    error = "name '" + name + "': letters, digits, '.', '_', '-', '@'";
    return false;
  }
  FILE* f = std::fopen(pem.c_str(), "r");
  if (f == nullptr) {
    error = pem + ": cannot be read";
    return false;
  }
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_PUBKEY(f, nullptr, nullptr, nullptr), &EVP_PKEY_free);
  std::fclose(f);
  unsigned char raw[kKeyBytes];
  size_t size = sizeof raw;
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519 ||
      EVP_PKEY_get_raw_public_key(key.get(), raw, &size) != 1 || size != kKeyBytes) {
    error = pem + ": not an Ed25519 public key in PEM form";
    return false;
  }
  const int fd = open(keys_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
  const std::string line = name + " = " + to_hex(raw, size) + "\n";
  const bool ok = fd >= 0 && fchmod(fd, 0600) == 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  if (fd >= 0) close(fd);
  if (!ok) error = keys_path + ": cannot be written";
  return ok;
}

}  // namespace zqfleet
