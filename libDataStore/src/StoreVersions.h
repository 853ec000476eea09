#pragma once

// The schema version each store writes into its version table, and checks when it opens a
// file. Kept here so that the stores and the table reader (which tells a file's store and
// version) share one number each.

namespace zrn {
namespace schema {

constexpr int kGeneralVersion = 1;
constexpr int kEventVersion = 3;
constexpr int kSoftwareDiagVersion = 1;

}  // namespace schema
}  // namespace zrn
