// The demo leaves the host as it found it: what it creates on the way (the data root, store
// directories, key blob files, a temporary root key for the key service) it removes at the
// end, and it touches nothing else.
#pragma once

#include <string>
#include <vector>

namespace kora::cli {

class DemoHost {
 public:
  DemoHost() = default;
  ~DemoHost();
  DemoHost(const DemoHost&) = delete;
  DemoHost& operator=(const DemoHost&) = delete;

  // Records what exists and creates the data root if it is missing; points the key service
  // at a temporary root key when the host has none. False with *why on failure (nothing is
  // left behind then).
  bool prepare(std::string* why);
  // Removes what prepare() and the store created on the way; the demo's own credentials are
  // removed through the store before. Called by the destructor if not before.
  void restore();

  bool created_data_root() const { return !created_dirs_.empty(); }
  bool used_temporary_root_key() const { return !temp_key_dir_.empty(); }
  // What restore() could not remove, for the report.
  const std::vector<std::string>& leftovers() const { return leftovers_; }

 private:
  std::vector<std::string> created_dirs_;       // "/data", "/data/data_velto" when we made them
  std::vector<std::string> absent_store_dirs_;  // store directories missing at the start
  std::vector<std::string> absent_files_;       // key blob files missing at the start
  std::string temp_key_dir_;
  std::string temp_key_file_;
  std::vector<std::string> leftovers_;
  bool prepared_ = false;
};

}  // namespace kora::cli
