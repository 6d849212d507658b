// Path resolution, the factories of entries and open files, reserved-folder classification and
// the open-file table.
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

std::shared_ptr<VELT::DirEntry> VELT::findEntry(const char* path) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::shared_ptr<DirEntry> current = root_;
  if (current == nullptr || path == nullptr) return nullptr;
  const char* p = path;
  while (*p == '/') ++p;
  // Components are copied out, so the caller's text is never touched.
  std::string component;
  while (*p != '\0') {
    const char* end = p;
    while (*end != '\0' && *end != '/') ++end;
    component.assign(p, static_cast<size_t>(end - p));
    current = current->findChild(component.c_str());
    if (current == nullptr) return nullptr;
    p = end;
    while (*p == '/') ++p;
  }
  return current;
}

void VELT::invalidateKernelCache(const std::string& path) {
  std::shared_lock<std::shared_mutex> lock(kernel_invalidate_mutex_);
  if (!kernel_invalidate_) return;
  std::string clean;
  clean.reserve(path.size() + 1);
  for (char c : path) {
    if (c == '/' && !clean.empty() && clean.back() == '/') continue;
    clean.push_back(c);
  }
  if (clean.empty() || clean[0] != '/') clean.insert(clean.begin(), '/');
  kernel_invalidate_(clean);
}

void VELT::invalidateKernelCache(const DirEntry* entry) {
  if (entry != nullptr && hasKernelCache()) invalidateKernelCache(entry->getPath());
}

bool VELT::hasKernelCache() {
  std::shared_lock<std::shared_mutex> lock(kernel_invalidate_mutex_);
  return static_cast<bool>(kernel_invalidate_);
}

void VELT::setKernelInvalidate(std::function<void(const std::string&)> hook) {
  std::unique_lock<std::shared_mutex> lock(kernel_invalidate_mutex_);
  kernel_invalidate_ = std::move(hook);
}

void VELT::initRootEntry(const std::shared_ptr<DirEntry>& root) {
  if (root == nullptr) return;
  root->is_dir_ = true;
  root->attr_ = kAttrDirectory;
  if (pbr_ == nullptr) {
    NERIO_ASSERT_TEXT("pbr_");
    return;
  }
  root->start_cluster_ = pbr_->root_cluster_;
}

std::shared_ptr<VELT::DirEntry> VELT::newEntry(const std::shared_ptr<DirEntry>& parent,
                                               const char* name, bool is_dir, int* error) {
  int ignored = 0;
  int& err = error != nullptr ? *error : ignored;
  err = -EINVAL;
  if (parent == nullptr) {
    NERIO_ASSERT_TEXT("parent");
    return nullptr;
  }
  if (name == nullptr || !isValidFileName(name)) return nullptr;
  // A FAT long name holds at most 255 UTF-16 code units.
  std::vector<uint16_t> units;
  size_t name_units = 0;
  if (!longNameUnits(name, &units, &name_units)) return nullptr;
  if (name_units > 255) {
    err = -ENAMETOOLONG;
    return nullptr;
  }
  try {
    auto entry = parent->createChild(name, false, is_dir, nullptr, &err);
    if (entry == nullptr && err == 0) err = -EIO;
    return entry;
  } catch (const std::exception&) {
    LOGE("got exception when creating a dir entry(\"%s/%s\")\n", parent->getPath().c_str(), name);
    err = -ENOMEM;
    return nullptr;
  }
}

std::shared_ptr<VELT::File> VELT::newFile(bool dir_mode, bool for_write, bool direct,
                                          const std::shared_ptr<DirEntry>& entry) {
  if (entry == nullptr) {
    NERIO_ASSERT_TEXT("entry != nullptr");
    return nullptr;
  }
  try {
    // A file of a reserved folder opens only while it still holds its reserved file: the
    // takeover that would recycle it and its deletion are serialised with this.
    std::unique_lock<std::mutex> reserved_lock;
    DirEntry* parent = entry->parent_;
    if (!dir_mode && parent != nullptr && parent->velt_folder_ != nullptr) {
      reserved_lock = std::unique_lock<std::mutex>(reserved_mutex_);
      if (parent->findVELTChild(entry->dir_ent_disk_off_) != entry) {
        errno = ENOENT;
        return nullptr;
      }
    }
    if (!dir_mode) entry->loadClusterMap();
    uint32_t handle;
    {
      // The handle is consumed even when the rest fails; handles are never reused.
      std::lock_guard<std::mutex> lock(files_mutex_);
      handle = static_cast<uint32_t>(next_file_handle_++);
    }
    auto file = std::make_shared<File>(this, handle, dir_mode, for_write, direct, entry.get());
    file->entry_ref_ = entry;
    {
      std::lock_guard<std::mutex> lock(files_mutex_);
      open_files_.emplace(handle, file);
    }
    entry->addFile(file);
    return file;
  } catch (const std::exception&) {
    LOGE("got exception when creating a file(dir? %d, path %s)\n", dir_mode ? 1 : 0,
         entry->getPath().c_str());
    return nullptr;
  }
}

ReservedFolderDesc* VELT::entryToVELTFolder(const DirEntry* entry) {
  if (entry == nullptr) {
    NERIO_ASSERT_TEXT("entry != nullptr");
    return nullptr;
  }
  if (pbr_ == nullptr) {
    NERIO_ASSERT_TEXT("pbr_ != nullptr");
    return nullptr;
  }
  if (!pbr_->is_velt_partition_) return nullptr;
  if (!format_info_.valid()) {
    NERIO_ASSERT_TEXT(
        "format_info_.magic1 == VELT_FSINFO_MAGIC1 && format_info_.magic2 == VELT_FSINFO_MAGIC2");
    return nullptr;
  }
  const EntryName* candidate = nullptr;
  if (entry->isArchive()) {
    const DirEntry* parent = entry->parent_;
    if (parent == nullptr) {
      NERIO_ASSERT_TEXT("entry->parent_");
      return nullptr;
    }
    if (parent->parent_ == nullptr || parent->parent_->parent_ != nullptr) return nullptr;
    candidate = &parent->name_;
  } else {
    if (!entry->isDir()) NERIO_ASSERT_TEXT("entry->isDir()");
    if (entry->parent_ == nullptr || entry->parent_->parent_ != nullptr) return nullptr;
    candidate = &entry->name_;
  }
  uint32_t count = std::min<uint32_t>(format_info_.folder_count, VELT_MAX_RESERVED_FOLDERS);
  for (uint32_t i = 0; i < count; ++i) {
    ReservedFolderDesc& desc = format_info_.folders[i];
    std::string name(desc.name, strnlen(desc.name, sizeof(desc.name)));
    if (strcasecmp(name.c_str(), candidate->c_str()) == 0) return &desc;
  }
  return nullptr;
}

int VELT::getDirectFiles(std::list<std::shared_ptr<File>>& files) {
  std::lock_guard<std::mutex> lock(files_mutex_);
  files.clear();
  for (const auto& [handle, file] : open_files_) {
    if (file != nullptr && file->direct_) files.push_back(file);
  }
  return static_cast<int>(files.size());
}

int VELT::listRootFiles(std::list<std::string>& names) {
  names.clear();
  std::shared_ptr<DirEntry> root = root_;
  if (root == nullptr) return 0;
  std::lock_guard lock(root->children_mutex_);
  for (const auto& child : root->children_) {
    if (child->is_dir_ || child->is_volume_ || child->name_ == ".veltq") continue;
    names.push_back(child->name_);
  }
  return static_cast<int>(names.size());
}

int VELT::freeFile(uint32_t handle) {
  std::shared_ptr<File> file;
  {
    std::lock_guard<std::mutex> lock(files_mutex_);
    auto it = open_files_.find(handle);
    if (it == open_files_.end()) return -ENOENT;
    file = it->second;
    open_files_.erase(it);
  }
  if (file == nullptr || file->entry_ == nullptr) {
    NERIO_ASSERT_TEXT("file != nullptr && file->entry_ != nullptr");
    return 0;
  }
  file->entry_->removeFile(file);
  return 0;
}

}  // namespace velt
