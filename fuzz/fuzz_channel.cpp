// The channel target: the input is what a client writes into the request pipe. It is cut into
// records by the receiver's own framing, queued with the receiver's merging, and carried out by
// the worker's operations on a small card in memory.
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "fs/velt_file.h"
#include "fs/velt_pipe.h"
#include "fuzz_card.h"

#ifndef VELT_FUZZ_DIR
#error "VELT_FUZZ_DIR names the fuzz directory"
#endif

namespace velt::fuzz {

namespace {

const std::vector<uint8_t>& templateCard() {
  static const std::vector<uint8_t> card = [] {
    std::ifstream in(std::string(VELT_FUZZ_DIR) + "/corpus/card/plain-tree.card", std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
  }();
  return card;
}

// Carries out what the queues hold, as the worker would, and drops the replies.
void drain(VELT& v) {
  for (int guard = 0; guard < 10000; ++guard) {
    VELTWorkItem* item = nullptr;
    {
      std::lock_guard<std::mutex> lock(v.request_mutex_);
      item = v.__fetchRequest();
    }
    if (item == nullptr) break;
    VELTWorkItem* reply = v.executeDirectRequest(item);
    if (reply != nullptr) v.queueDirectResponse(reply);
  }
  std::lock_guard<std::mutex> lock(v.response_mutex_);
  for (VELTWorkItem* r : v.responses_) delete r;
  v.responses_.clear();
}

}  // namespace

int fuzzChannel(const uint8_t* data, size_t size) {
  if (templateCard().size() < 4096) return 0;
  auto disk = std::make_shared<std::vector<uint8_t>>(templateCard());
  auto v = mountMemoryCard(disk);
  if (v == nullptr) return 0;
  parseDirectStream(data, size, [&](const DirectHeader& h, const uint8_t* payload, size_t got) {
    // A record the client stopped writing in the middle of, or one too large to be taken.
    if (got != h.length - kDirectHeaderSize || got > kDirectPayloadMax) return;
    int32_t param = static_cast<int32_t>(h.param);
    uint32_t new_size_offset = 0;
    if (isDirectWriteOp(h.op)) {
      new_size_offset = directWriteNewSizeOffset(h.param);
      param = static_cast<int32_t>(directWriteFlags(h.param));
    }
    auto* item = new VELTWorkItem(h.fd, h.op, h.offset, param, static_cast<uint32_t>(got));
    item->new_size_offset_ = new_size_offset;
    if (got > 0) memcpy(item->data_, payload, got);
    {
      std::lock_guard<std::mutex> lock(v->request_mutex_);
      v->__queueRequest(item);
    }
    drain(*v);
  });
  drain(*v);
  v->flushAllRequests(nullptr, false, true);
  drain(*v);
  return 0;
}

}  // namespace velt::fuzz
