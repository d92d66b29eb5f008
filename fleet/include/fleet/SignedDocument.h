#pragma once

#include <sdk/text/SigningKey.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Fleet {

constexpr std::size_t kMaxDocumentBytes = 1024 * 1024;

/// What the operator of a fleet signs. A signature of one kind never counts for the other.
enum class DocumentKind { kPolicy, kAct };

/// "policy" or "act".
std::string KindName(DocumentKind kind);

/// The bytes that are signed: the purpose of the kind and the content.
std::string SignedBytes(DocumentKind kind, const std::string& content);

/// {"kind","content"}: what a machine that has the key is to sign.
std::string ToBeSigned(DocumentKind kind, const std::string& content);

/// Reads what ToBeSigned has made; false when it is something else.
bool ReadToBeSigned(const std::string& document, DocumentKind& kind, std::string& content);

/// The document to publish: {"content","signature"}. Empty when `key` cannot sign or the document
/// is too large.
std::string Seal(DocumentKind kind, const std::string& content, const SDK::SigningKey& key);

/// The content of a published document. False with `error` when `key` has not signed it as one of
/// this kind.
bool Unseal(DocumentKind kind, const std::string& document, const SDK::SigningKey& key,
            std::string& content, std::string& error);

/// The content of a published document, with any signature. False when it is no such document.
bool ReadUnverified(const std::string& document, std::string& content);

/// Whom a document is for: agent ids, groups ("@web"), or "*" for every host of the key.
using Audience = std::vector<std::string>;

/// A host in the eyes of an audience.
struct Identity {
    std::string agent_id;
    std::vector<std::string> groups;  ///< without "@"
};

bool IsFor(const Audience& audience, const Identity& host);

/// An agent id, a group with "@", or "*".
bool IsAudience(const std::string& text);

}  // namespace Fleet
