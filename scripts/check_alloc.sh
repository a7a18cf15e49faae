#!/bin/sh
# Only platform/memory.cpp may call the system heap: every other object of the library must not
# reference malloc & co. or the global operator new/delete (which a std::string, std::function
# or default-allocator container would pull in).
set -eu
dir=$1
status=0
for obj in $(find "$dir" -name '*.o' ! -name 'memory.cpp.o'); do
  bad=$(nm -u "$obj" | awk '{print $NF}' |
        grep -E '^(malloc|calloc|realloc|free|strdup|strndup|_Znw[jm]|_Zna[jm]|_ZdlPv|_ZdaPv|_ZdlPv[jm]|_ZdaPv[jm]|_ZnwjRKSt9nothrow_t|_ZnwmRKSt9nothrow_t)$' || true)
  if [ -n "$bad" ]; then
    echo "$obj uses the system heap directly: $bad"
    status=1
  fi
done
[ $status -eq 0 ] && echo "allocator rule: ok"
exit $status
