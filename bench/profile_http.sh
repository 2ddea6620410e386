#!/usr/bin/env bash
# Instructions per keep-alive GET under callgrind, client side only: Corvix's pooled HttpGet against the
# hand-written libcurl loop (the two clients of http_bench, from HttpBenchClients.h), and where Corvix's
# extra instructions go. Unlike timings, instruction counts hardly move with the load of a shared machine.
#
#   bench/profile_http.sh [requests [bytes]]        (default: 1000 requests of 1024 bytes)
#
# Builds http_profile in build-profile (the Release flags plus -g: the same code, with line information
# so that costs can be put on source lines; KX_PROFILE_BUILD overrides the folder), runs each client
# under callgrind for the given number of requests after a warm-up, keeping only what happens inside
# ProfiledRequests (--dump-before/--dump-after: part 2 of each output), and prints:
#   1. instructions per request of each client and body mode, and the Corvix/raw ratio;
#   2. the inclusive cost per request of the steps of Corvix's request path;
#   3. calls per request of curl_easy_setopt and curl_easy_getinfo, by caller;
#   4. the library's source lines with the largest cost per request, calls included.
# The outputs stay in <build>/callgrind/ for callgrind_annotate or kcachegrind.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
REQUESTS="${1:-1000}"
BYTES="${2:-1024}"
BUILD="${KX_PROFILE_BUILD:-$ROOT/build-profile}"
OUT="$BUILD/callgrind"

command -v valgrind >/dev/null || { echo "valgrind is needed (Debian package valgrind)" >&2; exit 1; }
[[ -x /usr/sbin/nginx ]] || { echo "nginx is needed (Debian package nginx)" >&2; exit 1; }

cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g -DKX_BUILD_BENCH=ON \
  -DKX_HEADER_CHECK=OFF >/dev/null
ninja -C "$BUILD" http_profile >/dev/null
mkdir -p "$OUT"

run() {  # side body: one callgrind run; its part 2 holds the counted requests only
  rm -f "$OUT/$1-$2.out"*
  valgrind --tool=callgrind --dump-before=ProfiledRequests --dump-after=ProfiledRequests \
    --callgrind-out-file="$OUT/$1-$2.out" "$BUILD/bench/http_profile" "$1" "$2" "$REQUESTS" "$BYTES" \
    2>"$OUT/$1-$2.log" >/dev/null || { echo "http_profile $1 $2 failed, see $OUT/$1-$2.log" >&2; exit 1; }
}

# callgrind_annotate's own perl warnings about files without line data are of no interest here.
annotate() { callgrind_annotate "$@" 2>/dev/null; }

per_request() {  # callgrind output -> instructions per request
  annotate "$1" | awk -v n="$REQUESTS" '/PROGRAM TOTALS/ { gsub(",", "", $1); printf "%.0f", $1 / n }'
}

echo "== 1. Instructions per request ($REQUESTS GETs of $BYTES bytes on one keep-alive connection)"
printf '%-8s %12s %12s %8s\n' body corvix raw ratio
for body in text discard; do
  run corvix "$body"
  run raw "$body"
  corvix=$(per_request "$OUT/corvix-$body.out.2")
  raw=$(per_request "$OUT/raw-$body.out.2")
  awk -v b="$body" -v c="$corvix" -v r="$raw" 'BEGIN { printf "%-8s %12d %12d %8.3f\n", b, c, r, c / r }'
done

CORVIX="$OUT/corvix-text.out.2"
RAW="$OUT/raw-text.out.2"
annotate --inclusive=yes --threshold=100 "$CORVIX" >"$OUT/corvix-text.inclusive"
annotate --inclusive=yes --threshold=100 "$RAW" >"$OUT/raw-text.inclusive"

inclusive() {  # file regex -> inclusive instructions per request of the first matching function
  awk -v n="$REQUESTS" -v re="$2" '
    /file:function/ { body = 1; next }
    body && $0 ~ re { gsub(",", "", $1); printf "%.0f", $1 / n; found = 1; exit }
    END { if (!found) printf "0" }' "$1"
}

echo
echo "== 2. Inclusive instructions per request, text body (Corvix; raw for comparison)"
while IFS='|' read -r label regex; do
  printf '%-58s %8d\n' "$label" "$(inclusive "$OUT/corvix-text.inclusive" "$regex")"
done <<'EOF'
whole request|:ProfiledRequests
  pool lease (HttpConnectionLocker constructor)|HttpConnectionLocker::HttpConnectionLocker\(kx::http::HttpConnectionPool&
  pool release (HttpConnectionLocker destructor)|HttpConnectionLocker::~HttpConnectionLocker
  HttpHelpers::HttpGet|HttpHelpers::HttpGet\(
    HttpConnection::getHttpData|HttpConnection::getHttpData\(
      last URL copy (Url::operator=)|:kx::Url::operator=\(kx::Url const&\)
      last URL clearCredentials|:kx::Url::clearCredentials\(
      setupConnection|HttpConnection::setupConnection\(.*HostNameResolutionPolicy\)
        curl_easy_reset|:curl_easy_reset
        applyParameters|HttpConnectionParameters::applyParameters\(void\*.*HostNameResolutionPolicy\)
      getHttpDataImpl|HttpConnection::getHttpDataImpl\(
        toEncodedUrl|:kx::Url::toEncodedUrl
        InstallCall (the helper's header callback)|InstallCall\(
        header list: iterateOverHeaders|HttpHeaders::iterateOverHeaders
        curl_slist_append (all callers)|:curl_slist_append
        curl_slist_free_all (all callers)|:curl_slist_free_all
        curl_easy_perform|:curl_easy_perform
          WriteResponse (body callback)|WriteResponse\(
          Progress (progress callback)|[^a-zA-Z]Progress\(void\*
curl_easy_setopt (all callers)|:curl_easy_setopt
curl_easy_getinfo (all callers)|:curl_easy_getinfo
EOF
printf '%-58s %8d\n' "raw: whole request" "$(inclusive "$OUT/raw-text.inclusive" ':ProfiledRequests')"
printf '%-58s %8d\n' "raw: curl_easy_perform" "$(inclusive "$OUT/raw-text.inclusive" ':curl_easy_perform')"

echo
echo "== 3. Calls per request by caller (Corvix, text body)"
annotate --inclusive=yes --tree=caller --threshold=100 "$CORVIX" | sed 's/(anonymous namespace)/{anon}/g' | awk -v n="$REQUESTS" '
  /^ *[0-9,]+ +(\([^)]*\) +)?< / { callers[++k] = $0; next }
  /^ *[0-9,]+ +(\([^)]*\) +)?\* +/ {
    if ($0 ~ /:curl_easy_setopt |:curl_easy_getinfo /) {
      name = $0; sub(/.*\* +[^:]*:/, "", name); sub(/ \[.*/, "", name)
      for (i = 1; i <= k; ++i) {
        line = callers[i]; cost = line; sub(/^ */, "", cost); sub(/ .*/, "", cost); gsub(",", "", cost)
        calls = line; sub(/.*\(/, "", calls); sub(/x\).*/, "", calls); gsub(",", "", calls)
        caller = line; sub(/.*< +[^:]*:/, "", caller); sub(/\(.*/, "", caller)
        printf "%-18s %6.1f calls %7.0f instr  from %s\n", name, calls / n, cost / n, caller
      }
    }
    k = 0; next
  }
  /^$/ { k = 0 }'

echo
echo "== 4. Library source lines by cost per request, calls included (Corvix, text body; top 30)"
annotate --inclusive=yes --auto=yes --show-percs=no --context=0 "$CORVIX" |
  sed 's/(anonymous namespace)/{anon}/g' | awk -v n="$REQUESTS" -v root="$ROOT/" '
  /^-- Auto-annotated source: / { file = $4; sub(root, "", file); keep = file ~ /^(src|platform)\//; next }
  !keep { next }
  /^-- line [0-9]+ / { line = $3; next }
  /^ *[0-9,]+ +=> / {
    cost = $1; gsub(",", "", cost)
    callee = $0; sub(/.*=> +[^:]*:/, "", callee); sub(/\(.*/, "", callee)
    calls = $NF; gsub(/[(),x]/, "", calls)
    key = file ":" line
    total[key] += cost; what[key] = what[key] sprintf(" [%s %.1fx]", callee, calls / n)
    next
  }
  /events annotated/ { next }
  /^ *[0-9,]+ / { cost = $1; gsub(",", "", cost); key = file ":" line; total[key] += cost
                  code = $0; sub(/^ *[0-9,]+ +/, "", code); text[key] = code }
  END {
    for (k in total) if (total[k] / n >= 50)
      printf "%8.0f  %-40s %s%s\n", total[k] / n, k, substr(text[k], 1, 70), what[k]
  }' | sort -rn | head -30
