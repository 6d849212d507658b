// Seeds of the fuzz corpora. `fuzz_make_seed IMAGE` fills a small, freshly made FAT32 card
// image with a tree through the library (the mtools take a FAT32 this small for a FAT12);
// `fuzz_make_seed channel DIR` writes request streams a channel client sends.
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"
#include "fuzz_card.h"

namespace {

std::shared_ptr<velt::VELT::DirEntry> add(velt::VELT& v,
                                          const std::shared_ptr<velt::VELT::DirEntry>& dir,
                                          const char* name, size_t bytes, bool folder = false) {
  auto e = v.newEntry(dir, name, folder);
  if (e == nullptr || folder) return e;
  std::mt19937 rng(static_cast<unsigned>(bytes));
  std::string data(bytes, '\0');
  for (char& c : data) c = static_cast<char>(rng());
  auto f = v.newFile(false, true, false, e);
  if (f == nullptr) return e;
  f->write(data.data(), data.size(), 0);
  f->close();
  v.freeFile(f->file_no_);
  return e;
}

void record(std::string* out, uint32_t op, int32_t fd, int64_t offset, uint32_t param,
            const std::string& payload) {
  velt::DirectHeader h;
  h.length = velt::kDirectHeaderSize + static_cast<uint32_t>(payload.size());
  h.fd = fd;
  h.op = op;
  h.offset = offset;
  h.param = param;
  uint8_t head[velt::kDirectHeaderSize];
  velt::encodeDirectHeader(h, head);
  out->append(reinterpret_cast<const char*>(head), sizeof(head));
  *out += payload;
}

int channelSeeds(const std::string& dir) {
  using namespace velt;
  // The first file the channel opens on a fresh mount gets number 3.
  std::string s;
  record(&s, kDirectOpCreate, 0, 0, 0, std::string("/chan rec.bin", 14));
  record(&s, kDirectOpWrite, 3, 0, directWriteParam(0, 0), std::string(3000, 'a'));
  record(&s, kDirectOpWrite, 3, 3000, directWriteParam(16, kDirectFlagReady), std::string(700, 'b'));
  record(&s, kDirectOpWriteEvent, 3, 3700, directWriteParam(0, kDirectFlagSecure), "cd");
  record(&s, kDirectOpRead, 3, 100, 512, "");
  record(&s, kDirectOpGetSize, 3, 0, 0, "");
  record(&s, kDirectOpGetRealSize, 3, 0, 0, "");
  record(&s, kDirectOpOpen, 0, 0, 0, std::string("/README.TXT", 12));
  uint8_t splice[kDirectSpliceSize];
  encodeDirectSplice(DirectSplice{3, 5000, 600}, splice);
  record(&s, kDirectOpSplice, 4, 0, 0, std::string(reinterpret_cast<char*>(splice), sizeof(splice)));
  record(&s, kDirectOpReadEvent, 3, 9000, 64, "");
  record(&s, kDirectOpClose, 4, 0, 0, "");
  record(&s, kDirectOpClose, 3, 0, kDirectFlagUnlink, "");
  std::ofstream(dir + "/session.bin", std::ios::binary) << s;
  // Junk before a record, a record cut short, a length shorter than a header.
  std::string junk = "\x01\xFD\xEC\xB9garbage";
  record(&junk, kDirectOpCreate, 0, 0, 0, std::string("/x", 3));
  junk += std::string("\xFD\xEC\xB9\xA8\x05\x00\x00\x00", 8);
  record(&junk, kDirectOpWrite, 3, 0, directWriteParam(0, 0), std::string(100, 'z'));
  junk.resize(junk.size() - 10);
  std::ofstream(dir + "/resync.bin", std::ios::binary) << junk;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "channel") return channelSeeds(argv[2]);
  if (argc != 2) return 2;
  std::ifstream in(argv[1], std::ios::binary);
  auto disk = std::make_shared<std::vector<uint8_t>>(std::istreambuf_iterator<char>(in),
                                                     std::istreambuf_iterator<char>());
  {
    auto v = velt::fuzz::mountMemoryCard(disk);
    if (v == nullptr) return 1;
    auto root = v->root_;
    add(*v, root, "a long name that takes three records.bin", 3000);
    add(*v, root, "README.TXT", 700);
    auto one = add(*v, root, "folder one", 0, true);
    if (one != nullptr) {
      add(*v, one, "inner file.txt", 1200);
      auto deeper = add(*v, one, "deeper", 0, true);
      if (deeper != nullptr) add(*v, deeper, "leaf.dat", 2500);
    }
    add(*v, root, "empty", 0);
    add(*v, root, "last.txt", 513);
  }
  std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(disk->data()), static_cast<std::streamsize>(disk->size()));
  return out ? 0 : 1;
}
