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
#include <map>
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

// The command line, parsed once by parseArgs: the common options, the command, its options
// (letter -> value, "" for a switch) and its operands.
struct Args {
  int timeout_ms = -1;
  std::string command;
  std::map<char, std::string> options;
  std::vector<std::string> operands;

  bool has(char letter) const { return options.count(letter) > 0; }
  // The option's number (K and M suffixes) within [low, high], or `fallback` without the
  // option. A bad value was refused by parseArgs already.
  int64_t number(char letter, int64_t fallback) const {
    auto it = options.find(letter);
    int64_t v = fallback;
    if (it != options.end()) parseSize(it->second.c_str(), &v);
    return v;
  }
  const char* operand(size_t i) const { return operands[i].c_str(); }
};

int connectClient(DirectClient& client, const Args& a) {
  int r = client.connect(a.timeout_ms < 0 ? 5000 : a.timeout_ms);
  if (r == -EBUSY) {
    fprintf(stderr, "veltctl: another client is using the channel (it holds %s); try again later\n",
            velt::platformPath(velt::kDirectLockFile).c_str());
  } else if (r < 0) {
    fail("cannot reach the daemon's channel", r);
  }
  return r;
}

int cmdWrite(const Args& a) {
  const int64_t record = a.number('b', kDefaultRecordBytes);
  const bool event = a.has('e');
  const bool publish = !a.has('n');
  const int timeout_ms = a.timeout_ms;
  DirectClient client;
  if (connectClient(client, a) < 0) return 1;
  int fd = client.create(a.operand(0), 0, timeout_ms);
  if (fd < 0) return fail(a.operand(0), fd);
  // Standard input is read straight into records of the asked size, which the pipe takes
  // without a copy; the first record publishes a file of a reserved folder (unless -n).
  if (record <= 0 || record > velt::kDirectPayloadMax) return fail("record size", EINVAL);
  bool input_failed = false;
  const int64_t offset =
      client.writeFrom(STDIN_FILENO, fd, 0, static_cast<uint32_t>(record),
                       publish ? velt::kDirectFlagSecure : 0u, event, &input_failed);
  if (offset < 0) return fail(input_failed ? "standard input" : "write", static_cast<int>(offset));
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

int cmdRead(const Args& a) {
  const int64_t record = a.number('b', kDefaultRecordBytes);
  int64_t offset = a.number('o', 0);
  const int64_t want = a.number('s', -1);
  const bool follow = a.has('f');
  const int timeout_ms = a.timeout_ms;
  DirectClient client;
  if (connectClient(client, a) < 0) return 1;
  int fd = client.open(a.operand(0), 0, timeout_ms);
  if (fd < 0) return fail(a.operand(0), fd);
  int64_t end = -1;  // stop before this offset; -1: never
  if (want >= 0) {
    end = offset + want;
  } else if (!follow) {
    end = client.getSize(fd, true, timeout_ms);
    if (end < 0) return fail("size", static_cast<int>(end));
  }
  // Data that is already there is read with a few requests in flight; a read that may have to
  // wait for data goes alone (a file holds one waiting read at most) and goes on where its
  // reply ended. Replies go straight from the reply pipe to standard output where that can be.
  const size_t window = want < 0 && !follow ? 4 : 1;
  std::deque<std::pair<int64_t, int64_t>> in_flight;  // offset, bytes
  int64_t next = offset;
  int result = 0;
  while (result == 0 && (end < 0 || next < end || !in_flight.empty())) {
    while ((end < 0 || next < end) && in_flight.size() < window) {
      const int64_t n = end < 0 ? record : std::min<int64_t>(record, end - next);
      int r = client.sendRead(fd, next, static_cast<int32_t>(n));
      if (r < 0) return fail("read", r);
      in_flight.emplace_back(next, n);
      next += n;
    }
    const auto [at, n] = in_flight.front();
    in_flight.pop_front();
    size_t got = 0;
    bool out_failed = false;
    int r = client.waitReadTo(fd, at, STDOUT_FILENO, &got, &out_failed, false, timeout_ms);
    if (r < 0) {
      result = fail(out_failed ? "standard output" : "read", r);
    } else if (window > 1 && static_cast<int64_t>(got) != n) {
      result = fail("read", EIO);
    } else if (got == 0) {
      break;  // nothing more to come at this offset
    } else if (window == 1) {
      next = at + static_cast<int64_t>(got);
    }
  }
  client.close(fd);
  return result;
}

int cmdSplice(const Args& a) {
  const int64_t in_offset = a.number('o', 0), out_offset = a.number('O', 0);
  int64_t size = a.number('n', -1);
  const int timeout_ms = a.timeout_ms;
  DirectClient client;
  if (connectClient(client, a) < 0) return 1;
  int in = client.open(a.operand(0), 0, timeout_ms);
  if (in < 0) return fail(a.operand(0), in);
  int out = client.open(a.operand(1), 0, timeout_ms);
  if (out == -ENOENT) out = client.create(a.operand(1), 0, timeout_ms);
  if (out < 0) return fail(a.operand(1), out);
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
    printf("%" PRId64 " bytes spliced, %s is %" PRId64 " bytes\n", done, a.operand(1),
           out_size);
  return result;
}

int cmdSize(const Args& a) {
  const int timeout_ms = a.timeout_ms;
  DirectClient client;
  if (connectClient(client, a) < 0) return 1;
  int fd = client.open(a.operand(0), 0, timeout_ms);
  if (fd < 0) return fail(a.operand(0), fd);
  int64_t size = client.getSize(fd, false, timeout_ms);
  int64_t real = client.getSize(fd, true, timeout_ms);
  client.close(fd);
  if (size < 0) return fail("size", static_cast<int>(size));
  if (real < 0) return fail("size", static_cast<int>(real));
  printf("size %" PRId64 "\nreal size %" PRId64 "\n", size, real);
  return 0;
}

int cmdRemove(const Args& a) {
  DirectClient client;
  if (connectClient(client, a) < 0) return 1;
  int fd = client.open(a.operand(0), 0, a.timeout_ms);
  if (fd < 0) return fail(a.operand(0), fd);
  int r = client.closeAndWait(fd, velt::kDirectFlagUnlink, a.timeout_ms);
  if (r < 0) return fail(a.operand(0), r);
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

int cmdControl(const Args& a) {
  const std::string& name = a.command;
  const char* file = a.operand(0);
  int64_t value = 0;
  if (a.operands.size() > 1 && !parseSize(a.operand(1), &value)) return fail(a.operand(1), EINVAL);
  if (name == "cache-size") {
    int32_t size = static_cast<int32_t>(value);
    if (size != value) return fail(a.operand(1), ERANGE);
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

// Each command: its own options (getopt letters; those taking a number with its range) and how
// many operands follow them.
struct Command {
  const char* name;
  const char* options;
  size_t operands;
  int (*run)(const Args&);
};
struct NumberRange {
  char letter;
  int64_t low, high;
};

constexpr Command kCommands[] = {
    {"write", "b:en", 1, cmdWrite},      {"read", "b:o:s:f", 1, cmdRead},
    {"splice", "o:O:n:", 2, cmdSplice},  {"size", "", 1, cmdSize},
    {"rm", "", 1, cmdRemove},            {"cache-size", "", 2, cmdControl},
    {"cache-mode", "", 2, cmdControl},   {"queues", "", 1, cmdControl},
    {"file-size", "", 2, cmdControl},
};

// Every option that takes a number is one of these (record sizes fit a record's u32 length).
constexpr NumberRange kNumbers[] = {
    {'b', 1, 0x7FFFFFFF - 28}, {'o', 0, INT64_MAX}, {'O', 0, INT64_MAX},
    {'s', 0, INT64_MAX},       {'n', 0, INT64_MAX},
};

// Parses the whole command line into `a`; the exit status when the program ends here (help,
// usage errors), else -1.
int parseArgs(int argc, char** argv, Args* a, const Command** command) {
  static const struct option kOptions[] = {{"help", no_argument, nullptr, 'h'},
                                           {"timeout", required_argument, nullptr, 't'},
                                           {nullptr, 0, nullptr, 0}};
  int c;
  // '+': options stop at the command; its own options follow it.
  while ((c = getopt_long(argc, argv, "+t:h", kOptions, nullptr)) != -1) {
    switch (c) {
      case 't':
        a->timeout_ms = atoi(optarg);
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
  a->command = argv[optind];
  if (a->command == "help") {
    usage(stdout);
    return 0;
  }
  *command = nullptr;
  for (const Command& k : kCommands) {
    if (a->command == k.name) *command = &k;
  }
  if (*command == nullptr) {
    fprintf(stderr, "veltctl: unknown command \"%s\"\n", a->command.c_str());
    usage(stderr);
    return 2;
  }
  const int sub_argc = argc - optind;
  char** sub_argv = argv + optind;
  optind = 1;
  // A ':' first: a missing value is told apart from an unknown letter.
  const std::string letters = std::string(":") + (*command)->options;
  while ((c = getopt(sub_argc, sub_argv, letters.c_str())) != -1) {
    if (c == '?' || c == ':') {
      fprintf(stderr, "veltctl: %s: %s -%c\n", a->command.c_str(),
              c == '?' ? "unknown option" : "no value for", optopt);
      return 2;
    }
    a->options[static_cast<char>(c)] = optarg != nullptr ? optarg : "";
    for (const NumberRange& n : kNumbers) {
      int64_t v = 0;
      if (n.letter != c || optarg == nullptr) continue;
      // "-n" of write is a switch; only options with a value are numbers.
      if (!parseSize(optarg, &v) || v < n.low || v > n.high) {
        fprintf(stderr, "veltctl: bad value \"%s\" for -%c\n", optarg, c);
        return 2;
      }
    }
  }
  for (int i = optind; i < sub_argc; ++i) a->operands.push_back(sub_argv[i]);
  if (a->operands.size() != (*command)->operands) {
    usage(stderr);
    return 2;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  Args a;
  const Command* command = nullptr;
  const int status = parseArgs(argc, argv, &a, &command);
  return status >= 0 ? status : command->run(a);
}
