// veltctl: a client of velt.fuse's direct channel and of its ioctl commands.
#include <fcntl.h>
#include <getopt.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fs/velt_driver.h"
#include "fs/velt_fuse_ioctl.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"

namespace {

using velt::client::DirectClient;

constexpr uint32_t kDefaultRecordBytes = 64 * 1024;

void usage(FILE* out) {
  fputs(
      "usage: veltctl COMMAND [options] ARGUMENTS\n"
      "\n"
      "Direct channel (PATH: absolute path of a file under the daemon's mount point):\n"
      "  write [-b BYTES] [-e] [-n] PATH\n"
      "        create PATH and write standard input into it in records of BYTES\n"
      "        (default 65536); -e uses the event queue; -n leaves a file of a reserved\n"
      "        folder unpublished (by default the first record publishes it)\n"
      "  read [-b BYTES] [-o OFFSET] [-s SIZE | -f] PATH\n"
      "        write PATH to standard output, from OFFSET (default 0) to the end of its data;\n"
      "        -s reads SIZE bytes, waiting for data not written yet; -f follows the file as\n"
      "        it grows until interrupted\n"
      "  splice [-o IN_OFFSET] [-O OUT_OFFSET] [-n SIZE] SRC DST\n"
      "        copy SIZE bytes (default: the rest of SRC) of SRC into DST inside the\n"
      "        daemon; DST is created when it does not exist\n"
      "  size PATH      print the size and the size of the data written so far\n"
      "  rm PATH        delete PATH (closed with unlink)\n"
      "\n"
      "Control commands (FILE: any file of the mounted volume):\n"
      "  cache-size FILE BYTES   resize the sector cache (K or M suffix; 0 switches it off)\n"
      "  cache-mode FILE MODE    cache mode bits of FILE's open file (2: write through cache)\n"
      "  queues FILE             waiting normal and event requests of the direct channel\n"
      "  file-size FILE HANDLE   size of the open file with that handle\n"
      "\n"
      "Common options (before the command):\n"
      "  -t, --timeout MS    give up waiting for a reply after MS milliseconds (default: wait)\n"
      "  -h, --help          this help\n"
      "The pipes are /tmp/veltw and /tmp/velts, under $VELT_ROOT when that is set. One client\n"
      "at a time: veltctl holds /tmp/veltw.lock while it uses them and stops when another\n"
      "client holds it.\n",
      out);
}

int fail(const char* what, int error) {
  fprintf(stderr, "veltctl: %s: %s\n", what, strerror(error < 0 ? -error : error));
  return 1;
}

bool parseSize(const char* text, int64_t* value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(text, &end, 0);
  if (errno != 0 || end == text) return false;
  if (*end == 'K' || *end == 'k') {
    v *= 1024;
    ++end;
  } else if (*end == 'M' || *end == 'm') {
    v *= 1024 * 1024;
    ++end;
  }
  if (*end != '\0') return false;
  *value = v;
  return true;
}

int timeout_ms = -1;

int connectClient(DirectClient& client) {
  int r = client.connect(timeout_ms < 0 ? 5000 : timeout_ms);
  if (r == -EBUSY) {
    fprintf(stderr, "veltctl: another client is using the channel (it holds %s); try again later\n",
            velt::platformPath(velt::kDirectLockFile).c_str());
  } else if (r < 0) {
    fail("cannot reach the daemon's channel", r);
  }
  return r;
}

bool writeOut(const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(STDOUT_FILENO, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int cmdWrite(int argc, char** argv) {
  int64_t record = kDefaultRecordBytes;
  bool event = false;
  bool publish = true;
  int c;
  while ((c = getopt(argc, argv, "b:en")) != -1) {
    switch (c) {
      case 'b':
        if (!parseSize(optarg, &record) || record < 1 || record > 0x7FFFFFFF - 28) {
          fprintf(stderr, "veltctl: bad record size \"%s\"\n", optarg);
          return 2;
        }
        break;
      case 'e':
        event = true;
        break;
      case 'n':
        publish = false;
        break;
      default:
        return 2;
    }
  }
  if (optind + 1 != argc) {
    usage(stderr);
    return 2;
  }
  DirectClient client;
  if (connectClient(client) < 0) return 1;
  int fd = client.create(argv[optind], 0, timeout_ms);
  if (fd < 0) return fail(argv[optind], fd);
  // Standard input is read in large pieces and sent as records of the asked size.
  const size_t per_read = static_cast<size_t>(std::max<int64_t>(record, (1 << 20) / record * record));
  std::vector<uint8_t> buffer(per_read);
  int64_t offset = 0;
  bool first = true;
  for (bool end = false; !end;) {
    size_t got = 0;
    while (got < buffer.size()) {
      ssize_t n = read(STDIN_FILENO, buffer.data() + got, buffer.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail("standard input", errno);
      if (n == 0) break;
      got += static_cast<size_t>(n);
    }
    end = got < buffer.size();
    if (got == 0 && !first) break;
    // The first record publishes a file of a reserved folder (unless -n).
    int r = client.writeRecords(fd, offset, buffer.data(), got, static_cast<uint32_t>(record),
                                first && publish ? velt::kDirectFlagSecure : 0u, event);
    if (r < 0) return fail("write", r);
    offset += static_cast<int64_t>(got);
    first = false;
  }
  int r = event ? 0 : client.sync(fd, timeout_ms);
  if (r < 0) return fail("write", r);
  r = client.closeAndWait(fd, event ? velt::kDirectFlagEvent : 0u, timeout_ms);
  if (r < 0) return fail("close", r);
  for (const auto& e : client.takeErrors()) {
    fprintf(stderr, "veltctl: request at %" PRId64 " failed: %s\n", e.header.offset,
            strerror(-static_cast<int32_t>(e.header.param)));
    r = -1;
  }
  fprintf(stderr, "%" PRId64 " bytes written\n", offset);
  return r < 0 ? 1 : 0;
}

int cmdRead(int argc, char** argv) {
  int64_t record = kDefaultRecordBytes;
  int64_t offset = 0;
  int64_t want = -1;
  bool follow = false;
  int c;
  while ((c = getopt(argc, argv, "b:o:s:f")) != -1) {
    int64_t v = 0;
    switch (c) {
      case 'b':
        if (!parseSize(optarg, &v) || v < 1 || v > 0x7FFFFFFF) return fail(optarg, EINVAL);
        record = v;
        break;
      case 'o':
        if (!parseSize(optarg, &v) || v < 0) return fail(optarg, EINVAL);
        offset = v;
        break;
      case 's':
        if (!parseSize(optarg, &v) || v < 0) return fail(optarg, EINVAL);
        want = v;
        break;
      case 'f':
        follow = true;
        break;
      default:
        return 2;
    }
  }
  if (optind + 1 != argc) {
    usage(stderr);
    return 2;
  }
  DirectClient client;
  if (connectClient(client) < 0) return 1;
  int fd = client.open(argv[optind], 0, timeout_ms);
  if (fd < 0) return fail(argv[optind], fd);
  int64_t end = -1;  // stop before this offset; -1: never
  if (want >= 0) {
    end = offset + want;
  } else if (!follow) {
    end = client.getSize(fd, true, timeout_ms);
    if (end < 0) return fail("size", static_cast<int>(end));
  }
  int result = 0;
  std::vector<uint8_t> data;
  // Data that is already there is read with a few requests in flight; a read that may have to
  // wait for data goes alone.
  if (want < 0 && !follow) {
    constexpr int kWindow = 4;
    std::deque<std::pair<int64_t, int64_t>> in_flight;  // offset, bytes
    int64_t next = offset;
    while (result == 0 && (next < end || !in_flight.empty())) {
      while (next < end && static_cast<int>(in_flight.size()) < kWindow) {
        const int64_t n = std::min<int64_t>(record, end - next);
        int r = client.sendRead(fd, next, static_cast<int32_t>(n));
        if (r < 0) return fail("read", r);
        in_flight.emplace_back(next, n);
        next += n;
      }
      const auto [at, n] = in_flight.front();
      in_flight.pop_front();
      int r = client.waitRead(fd, at, &data, false, timeout_ms);
      if (r < 0) {
        result = fail("read", r);
      } else if (static_cast<int64_t>(data.size()) != n) {
        result = fail("read", EIO);
      } else if (!writeOut(data.data(), data.size())) {
        result = fail("standard output", errno);
      }
    }
    client.close(fd);
    return result;
  }
  while (end < 0 || offset < end) {
    int64_t n = record;
    if (end >= 0) n = std::min<int64_t>(n, end - offset);
    int r = client.read(fd, offset, static_cast<int32_t>(n), &data, false, timeout_ms);
    if (r < 0) {
      result = fail("read", r);
      break;
    }
    if (data.empty()) break;  // nothing more to come at this offset
    if (!writeOut(data.data(), data.size())) {
      result = fail("standard output", errno);
      break;
    }
    offset += static_cast<int64_t>(data.size());
  }
  client.close(fd);
  return result;
}

int cmdSplice(int argc, char** argv) {
  int64_t in_offset = 0, out_offset = 0, size = -1;
  int c;
  while ((c = getopt(argc, argv, "o:O:n:")) != -1) {
    int64_t v = 0;
    if (!parseSize(optarg, &v) || v < 0) return fail(optarg, EINVAL);
    switch (c) {
      case 'o':
        in_offset = v;
        break;
      case 'O':
        out_offset = v;
        break;
      case 'n':
        size = v;
        break;
      default:
        return 2;
    }
  }
  if (optind + 2 != argc) {
    usage(stderr);
    return 2;
  }
  DirectClient client;
  if (connectClient(client) < 0) return 1;
  int in = client.open(argv[optind], 0, timeout_ms);
  if (in < 0) return fail(argv[optind], in);
  int out = client.open(argv[optind + 1], 0, timeout_ms);
  if (out == -ENOENT) out = client.create(argv[optind + 1], 0, timeout_ms);
  if (out < 0) return fail(argv[optind + 1], out);
  if (size < 0) {
    int64_t real = client.getSize(in, true, timeout_ms);
    if (real < 0) return fail("size", static_cast<int>(real));
    size = std::max<int64_t>(0, real - in_offset);
  }
  int result = 0;
  int64_t done = 0;
  // One request moves at most what a u32 counts; keep each well inside that.
  while (done < size) {
    uint32_t n = static_cast<uint32_t>(std::min<int64_t>(size - done, 64ll << 20));
    int r = client.splice(in, in_offset + done, static_cast<uint32_t>(out), out_offset + done, n);
    if (r < 0) {
      result = fail("splice", r);
      break;
    }
    done += n;
  }
  int r = client.sync(in, timeout_ms);
  if (r < 0 && result == 0) result = fail("splice", r);
  int64_t out_size = client.getSize(out, false, timeout_ms);
  client.close(in);
  client.close(out);
  if (result == 0)
    printf("%" PRId64 " bytes spliced, %s is %" PRId64 " bytes\n", done, argv[optind + 1],
           out_size);
  return result;
}

int cmdSize(int argc, char** argv) {
  if (argc != 2) {
    usage(stderr);
    return 2;
  }
  DirectClient client;
  if (connectClient(client) < 0) return 1;
  int fd = client.open(argv[1], 0, timeout_ms);
  if (fd < 0) return fail(argv[1], fd);
  int64_t size = client.getSize(fd, false, timeout_ms);
  int64_t real = client.getSize(fd, true, timeout_ms);
  client.close(fd);
  if (size < 0) return fail("size", static_cast<int>(size));
  if (real < 0) return fail("size", static_cast<int>(real));
  printf("size %" PRId64 "\nreal size %" PRId64 "\n", size, real);
  return 0;
}

int cmdRemove(int argc, char** argv) {
  if (argc != 2) {
    usage(stderr);
    return 2;
  }
  DirectClient client;
  if (connectClient(client) < 0) return 1;
  int fd = client.open(argv[1], 0, timeout_ms);
  if (fd < 0) return fail(argv[1], fd);
  int r = client.closeAndWait(fd, velt::kDirectFlagUnlink, timeout_ms);
  if (r < 0) return fail(argv[1], r);
  return 0;
}

// ioctl on a file of the mount; the command's record travels in `record`.
int control(const char* file, unsigned int command, void* record) {
  int fd = open(file, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  int r = ioctl(fd, command, record);
  int err = errno;
  close(fd);
  return r < 0 ? -err : r;
}

int cmdControl(const std::string& name, int argc, char** argv) {
  const bool with_value = name != "queues";
  if (argc != (with_value ? 3 : 2)) {
    usage(stderr);
    return 2;
  }
  const char* file = argv[1];
  int64_t value = 0;
  if (with_value && !parseSize(argv[2], &value)) return fail(argv[2], EINVAL);
  if (name == "cache-size") {
    int32_t size = static_cast<int32_t>(value);
    if (size != value) return fail(argv[2], ERANGE);
    int r = control(file, velt::VELT_IOC_SET_CACHE_SIZE, &size);
    return r < 0 ? fail("cache-size", r) : 0;
  }
  if (name == "cache-mode") {
    uint32_t mode = static_cast<uint32_t>(value);
    int r = control(file, velt::VELT_IOC_SET_CACHE_MODE, &mode);
    return r < 0 ? fail("cache-mode", r) : 0;
  }
  if (name == "queues") {
    velt::VELTQueueLengthsRecord record = {};
    int r = control(file, velt::VELT_IOC_GET_QUEUE_LENGTHS, &record);
    if (r < 0) return fail("queues", r);
    printf("normal %u\nevent %u\n", record.normal, record.event);
    return 0;
  }
  velt::VELTFileSizeRecord record = {};
  record.handle = static_cast<uint32_t>(value);
  int r = control(file, velt::VELT_IOC_GET_FILE_SIZE, &record);
  if (r < 0) return fail("file-size", r);
  printf("%" PRId64 "\n", record.size);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  static const struct option kOptions[] = {{"help", no_argument, nullptr, 'h'},
                                           {"timeout", required_argument, nullptr, 't'},
                                           {nullptr, 0, nullptr, 0}};
  int c;
  // '+': options stop at the command; each command parses its own.
  while ((c = getopt_long(argc, argv, "+t:h", kOptions, nullptr)) != -1) {
    switch (c) {
      case 't':
        timeout_ms = atoi(optarg);
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        usage(stderr);
        return 2;
    }
  }
  if (optind >= argc) {
    usage(stderr);
    return 2;
  }
  const std::string command = argv[optind];
  if (command == "help") {
    usage(stdout);
    return 0;
  }
  int sub_argc = argc - optind;
  char** sub_argv = argv + optind;
  optind = 1;  // the command's own options
  if (command == "write") return cmdWrite(sub_argc, sub_argv);
  if (command == "read") return cmdRead(sub_argc, sub_argv);
  if (command == "splice") return cmdSplice(sub_argc, sub_argv);
  if (command == "size") return cmdSize(sub_argc, sub_argv);
  if (command == "rm") return cmdRemove(sub_argc, sub_argv);
  if (command == "cache-size" || command == "cache-mode" || command == "queues" ||
      command == "file-size") {
    return cmdControl(command, sub_argc, sub_argv);
  }
  fprintf(stderr, "veltctl: unknown command \"%s\"\n", command.c_str());
  usage(stderr);
  return 2;
}
