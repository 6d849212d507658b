// Directory entries: filling an entry from its record and writing its record back.
#include "fs/velt_dirent.h"

#include <cerrno>
#include <cstring>

#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

namespace {
constexpr uint16_t kDefaultTime = 0x03C0;  // 00:30:00
constexpr uint16_t kDefaultDate = 0xF34C;  // 12 October 2101
}  // namespace

VELT::DirEntry::DirEntry(VELT* velt)
    : velt_(velt),
      create_time_(kDefaultTime),
      create_date_(kDefaultDate),
      access_date_(kDefaultDate),
      write_date_(kDefaultDate),
      write_time_(kDefaultTime) {
  // The same for every entry: converted once, not three mktime calls per entry of a tree.
  static const time_t kDefaultMoment = fatToTime(kDefaultDate, kDefaultTime);
  static const time_t kDefaultDay = fatToTime(kDefaultDate, 0);
  created_ = kDefaultMoment;
  accessed_ = kDefaultDay;
  modified_ = kDefaultMoment;
}

std::string VELT::DirEntry::getPath() const {
  // As the mount spells it: one slash between names, none for the root's (empty) name.
  std::string path = name_;
  for (const DirEntry* p = parent_; p != nullptr && p->parent_ != nullptr; p = p->parent_) {
    path = p->name_ + "/" + path;
  }
  return "/" + path;
}

void VELT::DirEntry::fillRecord(uint8_t* r) {
  // The record claims the chain and size in memory, whose data a close may have left on its way
  // to the card; and a rename must find on the card the record it moves.
  if (velt_ != nullptr) velt_->settleRecord(*this);
  shortNameToName83(short_name_.c_str(), r + rec::kName);
  r[rec::kAttr] = attr_;
  putLe16(r + rec::kCreateTime, create_time_);
  putLe16(r + rec::kCreateDate, create_date_);
  putLe16(r + rec::kAccessDate, access_date_);
  putLe16(r + rec::kClusterHigh, static_cast<uint16_t>(start_cluster_ >> 16));
  putLe16(r + rec::kWriteTime, write_time_);
  putLe16(r + rec::kWriteDate, write_date_);
  putLe16(r + rec::kClusterLow, static_cast<uint16_t>(start_cluster_ & 0xFFFF));
  putLe32(r + rec::kSize, static_cast<uint32_t>(size_));
}

int VELT::DirEntry::init(const char* name, const char* short_name, uint8_t attr,
                         const uint8_t* record) {
  name_ = name;
  short_name_ = short_name;
  if (parent_ != nullptr) parent_->dropChildIndex();  // named after it joined the directory
  attr_ = attr;
  switch (attr & (kAttrDirectory | kAttrVolumeId)) {
    case 0:
      is_dir_ = is_volume_ = false;
      break;
    case kAttrDirectory:
      is_dir_ = true;
      break;
    case kAttrVolumeId:
      is_volume_ = true;
      break;
    default:
      valid_ = false;
      return -1;
  }
  read_only_ = (attr & kAttrReadOnly) != 0;
  size_ = real_size_ = le32(record + rec::kSize);
  if (is_dir_ && size_ != 0) {
    LOGE("[%s] type of dir, but size is not zero, but %jd \n", getPath().c_str(),
         static_cast<intmax_t>(size_));
    valid_ = false;
    return -1;
  }
  create_time_ = le16(record + rec::kCreateTime);
  create_date_ = le16(record + rec::kCreateDate);
  access_date_ = le16(record + rec::kAccessDate);
  write_time_ = le16(record + rec::kWriteTime);
  write_date_ = le16(record + rec::kWriteDate);
  start_cluster_ = (static_cast<uint32_t>(le16(record + rec::kClusterHigh)) << 16) |
                   le16(record + rec::kClusterLow);
  if (!velt_->pbr_->checkClusterChains(start_cluster_, static_cast<size_t>(size_))) {
    LOGE("[%s] bad cluster chain: start %d(0x%08x), size %jd \n", getPath().c_str(), start_cluster_,
         start_cluster_, static_cast<intmax_t>(size_));
    valid_ = false;
    return -1;
  }
  created_ = fatToTime(create_date_, create_time_);
  accessed_ = fatToTime(access_date_, 0);
  modified_ = fatToTime(write_date_, write_time_);
  keepRecord(record);
  return valid_ ? 0 : -1;
}

int VELT::DirEntry::touch(time_t atime, time_t mtime) {
  if (dir_ent_disk_off_ == 0) {
    NERIO_ASSERT_TEXT("dir_ent_disk_off_ != 0ll");
    return -EINVAL;
  }
  std::lock_guard lock(files_mutex_);  // the stamps are read under it
  if (removed_) return 0;              // the records are gone
  access_date_ = timeToFatDate(atime);
  accessed_ = atime;
  write_date_ = timeToFatDate(mtime);
  write_time_ = timeToFatTime(mtime);
  modified_ = mtime;
  // Until publication the card holds the previous occupant's names in front of a deleted
  // record; the stamps go out with the record that publishes the file.
  if (is_reserved_ && !is_secured_) return 0;
  uint8_t r[DIR_RECORD_SIZE] = {};
  if (velt_->read(r, DIR_RECORD_SIZE, dir_ent_disk_off_) < DIR_RECORD_SIZE) {
    int err = errno ? errno : EIO;
    LOGE("[%s] update error %d(%s)\n", getPath().c_str(), err, strerror(err));
    return -err;
  }
  fillRecord(r);  // bytes 12 and 13 keep what the card holds
  keepRecord(r);
  if (velt_->write(r, DIR_RECORD_SIZE, dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    int err = errno ? errno : EIO;
    LOGE("[%s] touch error %d(%s)\n", getPath().c_str(), err, strerror(err));
    return -err;
  }
  return 0;
}

void VELT::DirEntry::stampNow(bool is_accessed, bool is_modified) {
  if (!is_accessed && !is_modified) return;
  time_t now = time(nullptr);
  access_date_ = timeToFatDate(now);
  accessed_ = now;
  if (is_modified) {
    write_date_ = timeToFatDate(now);
    write_time_ = timeToFatTime(now);
    modified_ = now;
  }
}

int VELT::DirEntry::update(bool is_accessed, bool is_modified, uint8_t* record_out) {
  if (!is_accessed && !is_modified) NERIO_ASSERT_TEXT("is_accessed || is_modified");
  if (!isArchive()) NERIO_ASSERT_TEXT("isArchive()");
  if (dir_ent_disk_off_ == 0) {
    NERIO_ASSERT_TEXT("dir_ent_disk_off_ != 0");
    return -EINVAL;
  }
  stampNow(is_accessed, is_modified);
  if (record_out != nullptr) {
    fillRecord(record_out);
    return 0;
  }
  uint8_t r[DIR_RECORD_SIZE] = {};
  if (velt_->read(r, DIR_RECORD_SIZE, dir_ent_disk_off_) < DIR_RECORD_SIZE) {
    int err = errno ? errno : EIO;
    LOGE("[%s] update error %d(%s)\n", getPath().c_str(), err, strerror(err));
    return -err;
  }
  fillRecord(r);
  if (velt_->write(r, DIR_RECORD_SIZE, dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    int err = errno ? errno : EIO;
    LOGE("[%s] update error %d(%s)\n", getPath().c_str(), err, strerror(err));
    return -err;
  }
  return 0;
}

int VELT::DirEntry::update2(bool is_accessed, bool is_modified) {
  if (!is_accessed && !is_modified) NERIO_ASSERT_TEXT("is_accessed || is_modified");
  if (is_reserved_ && !is_secured_) {
    LOGI(
        "DELAY_RESERVED_FILE_CREATE enabled, but not secured yet. ignore this request on "
        "\"%s\".\n",
        name_.c_str());
    return 0;
  }
  if (removed_) return 0;  // the records are gone
  if (!isArchive()) NERIO_ASSERT_TEXT("isArchive()");
  if (dir_ent_disk_off_ == 0) {
    NERIO_ASSERT_TEXT("dir_ent_disk_off_ != 0");
    return -EINVAL;
  }
  uint8_t r[DIR_RECORD_SIZE];
  buildRecord(r);
  shortNameToName83(short_name_.c_str(), r + rec::kName);
  stampNow(is_accessed, is_modified);
  putLe16(r + rec::kAccessDate, access_date_);
  // The first cluster too: a file created empty gets it with its first write.
  putLe16(r + rec::kClusterHigh, static_cast<uint16_t>(start_cluster_ >> 16));
  putLe16(r + rec::kWriteTime, write_time_);
  putLe16(r + rec::kWriteDate, write_date_);
  putLe16(r + rec::kClusterLow, static_cast<uint16_t>(start_cluster_ & 0xFFFF));
  putLe32(r + rec::kSize, static_cast<uint32_t>(size_));
  if (velt_->write(r, DIR_RECORD_SIZE, dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    int err = errno ? errno : EIO;
    LOGE("[%s] update error %d(%s)\n", getPath().c_str(), err, strerror(err));
    return -err;
  }
  return 0;
}

}  // namespace velt
