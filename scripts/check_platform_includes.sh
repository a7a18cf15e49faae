#!/bin/sh
# Operating-system headers belong to src/platform/ alone; higher layers call its wrappers.
set -eu
root=$1
pattern='#include <(pthread|sys/socket|netinet/in|arpa/inet|net/if|sys/ioctl|dirent|sys/stat|unistd|fcntl|netdb|android/log|sys/types|sys/time|signal|sys/wait|sys/statfs|sys/vfs|pwd|ifaddrs|poll|sys/select|sys/epoll)\.h>'
hits=$(grep -rnE "$pattern" "$root/src" --include='*.cpp' --include='*.h' | grep -v "^$root/src/platform/" || true)
if [ -n "$hits" ]; then
  echo "operating-system headers outside src/platform/:"
  echo "$hits"
  exit 1
fi
echo "platform include rule: ok"
