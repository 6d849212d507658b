// The FUSE transport alone, for the read benchmark: one file, /data, that is a window of an
// image file, served with the daemon's mount settings (direct_io: every read reaches the
// server with the caller's size and offset; 1 s name and attribute timeouts, no negative
// caching, reads of at most 512 KiB (give "-o max_read=524288" too), the library's default
// max_write, the multi-threaded loop, replies spliced from the image's descriptor). Its reads hand the library the window's bytes as one run of the
// image, as the daemon does for a file whose clusters are consecutive.
//
//   window_fuse IMAGE OFFSET LENGTH [FUSE options] MOUNTPOINT
#define FUSE_USE_VERSION 35
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int image_fd = -1;
static off_t window_offset, window_length;

static void* init(struct fuse_conn_info* conn, struct fuse_config* cfg) {
  if (conn->capable & FUSE_CAP_SPLICE_WRITE) conn->want |= FUSE_CAP_SPLICE_WRITE;
  conn->max_read = 512 * 1024;
  cfg->use_ino = 1;
  cfg->direct_io = 1;
  cfg->kernel_cache = 0;
  cfg->entry_timeout = 1.0;
  cfg->attr_timeout = 1.0;
  cfg->negative_timeout = 0;
  return NULL;
}

static int getattr(const char* path, struct stat* st, struct fuse_file_info* fi) {
  (void)fi;
  memset(st, 0, sizeof(*st));
  if (strcmp(path, "/") == 0) {
    st->st_mode = S_IFDIR | 0755;
    st->st_nlink = 2;
    st->st_ino = 1;
  } else if (strcmp(path, "/data") == 0) {
    st->st_mode = S_IFREG | 0444;
    st->st_nlink = 1;
    st->st_ino = 2;
    st->st_size = window_length;
  } else {
    return -ENOENT;
  }
  return 0;
}

static int open_file(const char* path, struct fuse_file_info* fi) {
  (void)fi;
  if (strcmp(path, "/data") != 0) return -ENOENT;
  return 0;
}

static int read_file(const char* path, struct fuse_bufvec** bufp, size_t size, off_t off,
                     struct fuse_file_info* fi) {
  (void)path;
  (void)fi;
  if (off >= window_length)
    size = 0;
  else if ((off_t)size > window_length - off)
    size = (size_t)(window_length - off);
  struct fuse_bufvec* reply = malloc(sizeof(*reply));
  if (reply == NULL) return -ENOMEM;
  *reply = FUSE_BUFVEC_INIT(size);
  reply->buf[0].flags = FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK;
  reply->buf[0].fd = image_fd;
  reply->buf[0].pos = window_offset + off;
  *bufp = reply;
  return 0;
}

int main(int argc, char* argv[]) {
  if (argc < 5) {
    fprintf(stderr, "usage: %s IMAGE OFFSET LENGTH [FUSE options] MOUNTPOINT\n", argv[0]);
    return 1;
  }
  image_fd = open(argv[1], O_RDONLY);
  if (image_fd < 0) {
    perror(argv[1]);
    return 1;
  }
  window_offset = strtoll(argv[2], NULL, 0);
  window_length = strtoll(argv[3], NULL, 0);
  static const struct fuse_operations ops = {
      .getattr = getattr, .open = open_file, .read_buf = read_file, .init = init};
  argv[3] = argv[0];
  return fuse_main(argc - 3, argv + 3, &ops, NULL);
}
