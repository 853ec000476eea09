// Change detection for incremental exports.
//
// The fleet database keeps, per machine, the last version of every row it was sent; a row is
// known there by its store, table and row key (the INTEGER PRIMARY KEY, else the rowid). An
// incremental export must send the rows that are new or whose cells changed (a test run
// finished, a log's key/values replaced, a state item replaced) and a tombstone for every row
// that is gone (pruned, replaced under a new rowid), and the mark that lets it do so must stay
// small next to the stores.
//
// Rowid watermarks alone see only new rows. So the mark keeps a digest of every row (SHA-256
// of its key and typed cells, first 6 bytes: a change goes unseen once in 2^48), grouped in
// buckets of 64 consecutive keys with a bitmap of the keys that exist, so that keys cost a
// bit each rather than a number each: some 8 bytes of mark per row, against 200 to 300 bytes
// that a row with its indexes takes in a store. An export reads each table in key order from
// its snapshot and compares row by row with the mark: a key whose bit was 0 is new, a digest
// that differs is a changed row, a bit that went from 1 to 0 (or a bucket no longer there) is a
// row gone. The new mark is made in the same pass from what was read.

#include "ExportMark.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

#include "Context.h"

namespace datastore {

namespace {

constexpr long long kBucketKeys = 64;

long long bucketOf(long long key) {
    // Floor division: a negative key still falls into the bucket below it.
    return key >= 0 ? key / kBucketKeys : -((-(key + 1)) / kBucketKeys) - 1;
}

int bitOf(long long key) { return static_cast<int>(key - bucketOf(key) * kBucketKeys); }

void appendNumber(std::string& bytes, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xff);
}

// Every cell with its type and length, so that no two different rows serialise alike.
void appendRow(std::string& bytes, zrn::StoreRow const& row) {
    appendNumber(bytes, static_cast<std::uint64_t>(row.key));
    appendNumber(bytes, row.cells.size());
    for (zrn::StoreCell const& cell : row.cells) {
        bytes += static_cast<char>(cell.type);
        if (cell.type == zrn::StoreCell::Type::Integer) {
            appendNumber(bytes, static_cast<std::uint64_t>(cell.integer));
        } else if (cell.type == zrn::StoreCell::Type::Real) {
            std::uint64_t bits = 0;
            std::memcpy(&bits, &cell.real, sizeof bits);
            appendNumber(bytes, bits);
        } else if (cell.type != zrn::StoreCell::Type::Null) {
            appendNumber(bytes, cell.text.size());
            bytes += cell.text;
        }
    }
}

// The first kDigestBytes of the SHA-256 of `bytes`, appended to `digests`.
void appendDigest(std::string& digests, std::string const& bytes) {
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), hash, &size, EVP_sha256(), nullptr) != 1)
        throw ToolError(STORE, "cannot compute a digest (OpenSSL)");
    digests.append(reinterpret_cast<char const*>(hash), MarkBucket::kDigestBytes);
}

std::string hex(std::uint64_t value) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::uint64_t unhex(std::string const& text) {
    std::size_t used = 0;
    std::uint64_t const value = std::stoull(text, &used, 16);
    if (used != text.size() || text.size() != 16) throw std::invalid_argument(text);
    return value;
}

std::string base64(std::string const& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int const size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                     reinterpret_cast<unsigned char const*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

// The bytes of `text`, whose length is known: kDigestBytes is a multiple of 3, so no padding.
std::string unbase64(std::string const& text, std::size_t bytes) {
    if (text.size() != 4 * ((bytes + 2) / 3)) throw std::invalid_argument("digest length");
    std::string result(text.size() / 4 * 3 + 1, '\0');
    int const size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&result[0]),
                                     reinterpret_cast<unsigned char const*>(text.data()),
                                     static_cast<int>(text.size()));
    if (size < 0) throw std::invalid_argument("digest text");
    result.resize(bytes);
    return result;
}

int keysIn(std::uint64_t present) { return __builtin_popcountll(present); }

MarkTable tableOf(Json const& buckets) {
    MarkTable table;
    for (Json const& bucket : buckets) {
        MarkBucket entry;
        entry.bucket = bucket.at(0).get<long long>();
        entry.present = unhex(bucket.at(1).get<std::string>());
        entry.digests = unbase64(bucket.at(2).get<std::string>(),
                                 keysIn(entry.present) * MarkBucket::kDigestBytes);
        if (entry.present == 0 || (!table.empty() && table.back().bucket >= entry.bucket))
            throw std::invalid_argument("buckets out of order");
        table.push_back(std::move(entry));
    }
    return table;
}

}  // namespace

ExportMark readMark(std::string const& path) {
    ExportMark mark;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) return mark;
        throw ToolError(STORE, path + ": cannot read: " + std::strerror(errno));
    }
    try {
        Json const json = Json::parse(in);
        mark.machine = json.at("machine").get<std::string>();
        mark.version = json.at("version").get<unsigned long long>();
        for (auto const& store : json.at("stores").items())
            for (auto const& table : store.value().items())
                mark.stores[store.key()][table.key()] = tableOf(table.value());
    } catch (std::exception const&) {
        throw ToolError(USAGE, path + ": not an export mark (written by 'export --mark')");
    }
    return mark;
}

void writeMark(std::string const& path, ExportMark const& mark) {
    Json stores = Json::object();
    for (auto const& store : mark.stores) {
        Json tables = Json::object();
        for (auto const& table : store.second) {
            Json buckets = Json::array();
            for (MarkBucket const& b : table.second)
                buckets.push_back(Json::array({b.bucket, hex(b.present), base64(b.digests)}));
            tables[table.first] = std::move(buckets);
        }
        stores[store.first] = std::move(tables);
    }
    Json const json{{"machine", mark.machine}, {"version", mark.version}, {"stores", stores}};
    std::string const text = json.dump() + "\n";
    std::string const partial = path + ".partial";
    int const fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw ToolError(STORE, partial + ": cannot write: " + std::strerror(errno));
    // On disk before the rename: a mark that exists after a power cut is a whole one.
    bool const written =
        ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(fd) == 0;
    int const error = errno;
    ::close(fd);
    if (!written || std::rename(partial.c_str(), path.c_str()) != 0) {
        std::remove(partial.c_str());
        throw ToolError(STORE, path + ": cannot write: " + std::strerror(written ? errno : error));
    }
}

TableChanges::TableChanges(MarkTable const* previous, GoneSink onGone)
    : m_previous(previous), m_onGone(std::move(onGone)) {}

bool TableChanges::changed(zrn::StoreRow const& row) {
    long long const bucket = bucketOf(row.key);
    if (m_open && bucket != m_current.bucket) flush();
    if (!m_open) {
        m_current = MarkBucket{bucket, 0, {}};
        m_before = previousBucket(bucket);
        m_open = true;
    }
    std::uint64_t const bit = std::uint64_t{1} << bitOf(row.key);
    m_current.present |= bit;
    m_bytes.clear();
    appendRow(m_bytes, row);
    appendDigest(m_current.digests, m_bytes);
    std::size_t const size = MarkBucket::kDigestBytes;
    std::string const digest = m_current.digests.substr(m_current.digests.size() - size);
    bool unchanged = false;
    if (m_before && (m_before->present & bit)) {
        auto const index = static_cast<std::size_t>(keysIn(m_before->present & (bit - 1)));
        unchanged = m_before->digests.compare(index * size, size, digest) == 0;
    }
    if (unchanged) return false;
    ++m_sent;
    return true;
}

// The previous export's bucket `bucket`, if it had one; tombstones for the buckets before it
// that the table no longer has at all.
MarkBucket const* TableChanges::previousBucket(long long bucket) {
    passPrevious(bucket);
    if (!m_previous || m_next >= m_previous->size() || (*m_previous)[m_next].bucket != bucket)
        return nullptr;
    return &(*m_previous)[m_next++];
}

void TableChanges::passPrevious(long long upTo) {
    if (!m_previous) return;
    for (; m_next < m_previous->size() && (*m_previous)[m_next].bucket < upTo; ++m_next) {
        MarkBucket const& gone = (*m_previous)[m_next];
        for (int bit = 0; bit < kBucketKeys; ++bit)
            if (gone.present >> bit & 1) m_onGone(gone.bucket * kBucketKeys + bit);
    }
}

// Closes the current bucket: tombstones for the keys it had and has no more.
void TableChanges::flush() {
    std::uint64_t const gone = m_before ? m_before->present & ~m_current.present : 0;
    for (int bit = 0; bit < kBucketKeys; ++bit)
        if (gone >> bit & 1) m_onGone(m_current.bucket * kBucketKeys + bit);
    m_table.push_back(std::move(m_current));
    m_current = MarkBucket{};
    m_before = nullptr;
    m_open = false;
}

MarkTable TableChanges::finish() {
    if (m_open) flush();
    passPrevious(std::numeric_limits<long long>::max());
    return std::move(m_table);
}

}  // namespace datastore
