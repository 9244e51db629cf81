// A private view of the store root for tests: the calling process moves into a mount
// namespace of its own in which "/data" is a fresh tmpfs holding an empty "/data/data_velto/".
// With KORA_TEST_STORE_MOUNT=<dir>, "/data" is instead a new empty directory made on that
// mount (a flash file system in the ARM guest), so each case's store lives on it.
// The host's tree is never touched: when the host has no "/data", the namespace gets a new
// root made of bind mounts of the host's top-level entries plus the store's file system.
#pragma once

#include <string>

namespace kora::test {

// Enters the private namespace. Returns an empty string on success, else why it failed.
std::string enter_private_store_root();

// Mounts a fresh tmpfs with `options` (e.g. "size=64k", "mode=0755") at `path`, which must
// exist; only inside the private namespace. Returns an empty string or the reason.
std::string mount_tmpfs(const std::string& path, const std::string& options);

// Remounts the tmpfs at `path` read-only.
std::string remount_read_only(const std::string& path);

}  // namespace kora::test
