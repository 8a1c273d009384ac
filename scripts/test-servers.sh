#!/usr/bin/env bash
# Real upload targets on loopback for the tests: an S3 gateway in front of a
# one-node object store, and nginx with WebDAV.
#   scripts/test-servers.sh start DIR   bring both up in DIR, write DIR/env
#   scripts/test-servers.sh stop DIR    stop what start started, remove DIR's runtime data
# Installs nothing (scripts/install-deps.sh does). Runs as root. Everything
# listens on 127.0.0.1 on ports chosen free at start, so several runs may share
# a machine. DIR/env holds shell lines (QX_S3_*, QX_DAV_*) that the tests read.
# stop is safe to call twice, or after a failed start; a failed start stops
# what it had started, prints the tail of the failing daemon's log and exits 1.
set -eEuo pipefail

usage() { echo "usage: scripts/test-servers.sh start DIR | stop DIR" >&2; exit 2; }
[ $# -eq 2 ] || usage
action=$1
[ -n "$2" ] || usage
mkdir -p "$2"
dir=$(cd "$2" && pwd)

# The object store keeps every byte in memory, and takes about twice as much
# memory as it stores (2.05 GiB per GiB, measured). Its size is what the
# largest test needs: a 5 GiB object and a few small ones, under the 95 %
# at which the store counts as full. That is at most about 14 GiB of memory;
# memory is taken only as data arrives and given back when it is deleted.
memstore_bytes=${QX_TEST_MEMSTORE_BYTES:-$((7 * 1024 * 1024 * 1024))}
# How long each daemon may take to answer, in seconds.
answer_timeout=${QX_TEST_SERVERS_TIMEOUT:-180}

# Daemons are recorded in DIR/pids as "name pid start-time" lines.
pids_file=$dir/pids
runtime=(ceph.conf keyring monmap mon.a osd.0 rgw run log nginx env pids)

log() { echo "test-servers: $*"; }

# The start time of a process, in clock ticks since boot: with its pid it
# names one process, never a later one that got the same pid.
start_time() { awk '{print $22}' "/proc/$1/stat" 2>/dev/null; }

ours() {  # ours PID START_TIME: the process we started, and it has not ended
  { [ -n "${1:-}" ] && [ "$(start_time "$1")" = "${2:-}" ]; } || return 1
  [ "$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null)" != Z ] && return 0
  # A zombie leader may still have threads that end (and give memory back).
  local tasks=("/proc/$1/task/"*)
  [ ${#tasks[@]} -gt 1 ]
}

stop_all() {
  [ -f "$pids_file" ] || return 0
  local name pid since
  # The store's daemons get SIGKILL: their data is thrown away anyway, and a
  # clean shutdown costs seconds (memstore even writes its whole content to
  # disk). The web server quits at once on SIGTERM.
  while read -r name pid since; do
    ours "$pid" "$since" || continue
    if [ "$name" = nginx ]; then kill -TERM "$pid" 2>/dev/null || true
    else kill -KILL "$pid" 2>/dev/null || true; fi
  done <"$pids_file"
  while read -r name pid since; do
    local waited=0
    while ours "$pid" "$since"; do
      if [ $waited -eq 100 ]; then
        log "$name ($pid) still runs 10s after SIGTERM; killing it"
        kill -KILL "$pid" 2>/dev/null || true
      fi
      sleep 0.1
      waited=$((waited + 1))
    done
  done <"$pids_file"
  rm -f "$pids_file"
}

remove_runtime() {
  local f
  for f in "${runtime[@]}"; do rm -rf "${dir:?}/$f"; done
}

# A TCP port of loopback that no socket of the machine holds, below the
# range the kernel hands out for outgoing connections.
port_taken() {
  local hex
  hex=$(printf ':%04X ' "$1")
  grep -q "$hex" /proc/net/tcp /proc/net/tcp6 2>/dev/null
}
chosen_ports=" "
free_port() {
  local port tries=0
  while :; do
    port=$((10000 + RANDOM % 22000))
    if ! port_taken "$port" && [[ $chosen_ports != *" $port "* ]]; then
      chosen_ports+="$port "
      echo "$port"
      return 0
    fi
    tries=$((tries + 1))
    [ $tries -lt 1000 ] || { echo "no free port found" >&2; return 1; }
  done
}

failed_log=""
fail() {
  log "FAILED: $1"
  if [ -n "$failed_log" ] && [ -f "$failed_log" ]; then
    echo "--- last lines of $failed_log ---"
    tail -n 40 "$failed_log"
    echo "---"
  fi
  stop_all
  remove_runtime
  exit 1
}

# start_daemon NAME LOG COMMAND...: in a session of its own, without the
# caller's standard streams (ctest waits for those to close).
start_daemon() {
  local name=$1 out=$2
  shift 2
  setsid "$@" </dev/null >>"$out" 2>&1 &
  echo "$name $! $(start_time $!)" >>"$pids_file"
  disown $!
}

alive() {
  # shellcheck disable=SC2046
  ours $(awk -v n="$1" '$1 == n {print $2, $3}' "$pids_file")
}

# wait_for WHAT DAEMON COMMAND...: until COMMAND succeeds, while DAEMON lives.
wait_for() {
  local what=$1 daemon=$2 started=$SECONDS
  shift 2
  until "$@" >/dev/null 2>&1; do
    alive "$daemon" || fail "$daemon ended before $what"
    [ $((SECONDS - started)) -lt "$answer_timeout" ] || fail "$what: no answer in ${answer_timeout}s"
    sleep 0.2
  done
}

http_answers() {
  local code
  code=$(curl -s -o /dev/null -m 2 -w '%{http_code}' "$@") || return 1
  [ "$code" != 000 ]
}

random_text() {  # random_text LENGTH CHARSET
  local out=""
  while [ ${#out} -lt "$1" ]; do
    out+=$(head -c 256 /dev/urandom | LC_ALL=C tr -dc "$2")
  done
  echo "${out:0:$1}"
}

start() {
  [ "$(id -u)" -eq 0 ] || { echo "test-servers: runs as root" >&2; exit 1; }
  # A start over a start that was never stopped begins clean.
  stop_all
  remove_runtime
  local began=$SECONDS
  mkdir -p "$dir/run" "$dir/log" "$dir/rgw"
  : >"$pids_file"
  trap 'fail "command failed at line $LINENO"' ERR

  local mon_port rgw_port dav_port fsid
  mon_port=$(free_port)
  rgw_port=$(free_port)
  dav_port=$(free_port)
  fsid=$(cat /proc/sys/kernel/random/uuid)
  export CEPH_CONF=$dir/ceph.conf
  cat >"$CEPH_CONF" <<EOF
[global]
fsid = $fsid
mon_host = v2:127.0.0.1:$mon_port
public_addr = 127.0.0.1
cluster_addr = 127.0.0.1
ms_bind_ipv6 = false
auth_cluster_required = cephx
auth_service_required = cephx
auth_client_required = cephx
keyring = $dir/keyring
run_dir = $dir/run
admin_socket = $dir/run/\$name.asok
log_file = $dir/log/\$name.log
pid_file = $dir/run/\$name.pid
log_to_stderr = false
err_to_stderr = true
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 8
osd_pool_default_pgp_num = 8
osd_pool_default_pg_autoscale_mode = off
mon_allow_pool_size_one = true
mon_warn_on_pool_no_redundancy = false
mon_max_pg_per_osd = 1000
osd_crush_chooseleaf_type = 0
# Deleted and aborted objects are freed within seconds, not hours.
rgw_gc_obj_min_wait = 10
rgw_gc_processor_period = 10
[mon]
# One node: no need to batch changes of the maps (1 s by default each).
paxos_propose_interval = 0.05
paxos_min_wait = 0.01
[mon.a]
mon_data = $dir/mon.a
[osd]
osd_objectstore = memstore
memstore_device_bytes = $memstore_bytes
osd_data = $dir/osd.\$id
[client.rgw.a]
rgw_frontends = beast endpoint=127.0.0.1:$rgw_port
rgw_data = $dir/rgw
EOF

  log "object store: monitor on 127.0.0.1:$mon_port"
  local quiet=$dir/log/setup.log
  failed_log=$quiet
  {
    ceph-authtool --create-keyring "$dir/keyring" --gen-key -n mon. --cap mon 'allow *'
    ceph-authtool "$dir/keyring" --gen-key -n client.admin \
      --cap mon 'allow *' --cap osd 'allow *' --cap mgr 'allow *'
    ceph-authtool "$dir/keyring" --gen-key -n osd.0 --cap mon 'allow profile osd' --cap osd 'allow *'
    ceph-authtool "$dir/keyring" --gen-key -n client.rgw.a --cap mon 'allow rw' --cap osd 'allow rwx'
    monmaptool --create --add a "v2:127.0.0.1:$mon_port" --fsid "$fsid" "$dir/monmap"
    ceph-mon --mkfs -i a --monmap "$dir/monmap" --keyring "$dir/keyring"
  } >>"$quiet" 2>&1
  failed_log=$dir/log/mon.a.log
  start_daemon mon.a "$dir/log/mon.a.out" ceph-mon -f -i a
  wait_for "the monitor" mon.a timeout 20 ceph --connect-timeout 10 mon stat

  failed_log=$quiet
  local osd_id
  osd_id=$(ceph osd create 2>>"$quiet")
  [ "$osd_id" = 0 ] || fail "ceph osd create gave id '$osd_id', not 0"
  mkdir -p "$dir/osd.0"
  failed_log=$dir/log/osd.0.log
  ceph-osd -i 0 --mkfs >>"$quiet" 2>&1
  failed_log=$quiet
  ceph osd crush add osd.0 1.0 root=default >>"$quiet" 2>&1
  failed_log=$dir/log/osd.0.log
  start_daemon osd.0 "$dir/log/osd.0.out" ceph-osd -f -i 0
  wait_for "the OSD to be up" osd.0 bash -c 'ceph osd stat 2>/dev/null | grep -q "1 up"'
  log "object store: up after $((SECONDS - began))s"

  # The gateway would make its pools one after another, each a wait for the
  # store; made in one go they become ready together.
  failed_log=$quiet
  local pool
  for pool in .rgw.root default.rgw.control default.rgw.meta default.rgw.log \
    default.rgw.buckets.index default.rgw.buckets.data default.rgw.buckets.non-ec; do
    echo "osd pool create $pool 8 8"
    echo "osd pool application enable $pool rgw"
  done | ceph >>"$quiet" 2>&1

  failed_log=$dir/log/client.rgw.a.log
  start_daemon rgw "$dir/log/rgw.out" radosgw -f -n client.rgw.a
  local rgw_started=$SECONDS
  log "S3 gateway: 127.0.0.1:$rgw_port"

  # nginx with WebDAV, started while the gateway makes its pools.
  local nginx=$dir/nginx dav_user=qxdav dav_password worker_user=www-data
  dav_password=$(random_text 24 'A-Za-z0-9')
  mkdir -p "$nginx/www/dav" "$nginx/tmp" "$nginx/logs"
  printf '%s:{PLAIN}%s\n' "$dav_user" "$dav_password" >"$nginx/htpasswd"
  if id -u www-data >/dev/null 2>&1; then
    chown -R www-data:www-data "$nginx/www" "$nginx/tmp"
    chgrp www-data "$nginx/htpasswd"
    chmod 0640 "$nginx/htpasswd"
    # The workers must reach the folder from / to write it.
    runuser -u www-data -- test -w "$nginx/www/dav" -a -w "$nginx/tmp" -a -r "$nginx/htpasswd" ||
      worker_user=""
  else
    worker_user=""
  fi
  if [ -z "$worker_user" ]; then
    log "www-data cannot reach $nginx: the web server's workers run as root"
    worker_user=root
  fi
  cat >"$nginx/nginx.conf" <<EOF
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
user $worker_user;
worker_processes 2;
daemon off;
pid $nginx/nginx.pid;
error_log $nginx/logs/error.log warn;
events { worker_connections 512; }
http {
  access_log $nginx/logs/access.log;
  client_body_temp_path $nginx/tmp/body;
  proxy_temp_path $nginx/tmp/proxy;
  fastcgi_temp_path $nginx/tmp/fastcgi;
  uwsgi_temp_path $nginx/tmp/uwsgi;
  scgi_temp_path $nginx/tmp/scgi;
  server {
    listen 127.0.0.1:$dav_port;
    location /dav/ {
      root $nginx/www;
      dav_methods PUT DELETE MKCOL COPY MOVE;
      dav_ext_methods PROPFIND OPTIONS;
      dav_access user:rw group:rw all:r;
      create_full_put_path on;
      client_max_body_size 0;
      auth_basic "dav";
      auth_basic_user_file $nginx/htpasswd;
    }
  }
}
EOF
  failed_log=$nginx/logs/error.log
  nginx -t -p "$nginx" -e "$nginx/logs/error.log" -c "$nginx/nginx.conf" >>"$quiet" 2>&1
  start_daemon nginx "$nginx/logs/nginx.out" nginx -p "$nginx" -e "$nginx/logs/error.log" -c "$nginx/nginx.conf"
  wait_for "the web server" nginx http_answers "http://127.0.0.1:$dav_port/dav/"
  log "WebDAV: http://127.0.0.1:$dav_port/dav/ up after $((SECONDS - began))s"

  failed_log=$dir/log/client.rgw.a.log
  wait_for "the S3 gateway" rgw http_answers "http://127.0.0.1:$rgw_port/"
  log "S3 gateway: up after $((SECONDS - began))s ($((SECONDS - rgw_started))s after its start)"

  local access_key secret_key
  access_key=$(random_text 20 'A-Z0-9')
  secret_key=$(random_text 40 'A-Za-z0-9')
  failed_log=$quiet
  radosgw-admin user create --uid=qxtest --display-name="QXLite tests" \
    --access-key="$access_key" --secret-key="$secret_key" >>"$quiet" 2>&1

  # The gateway makes its data pools on first use, which takes seconds: make
  # them now, so that the first test's requests take as long as the others.
  local warm=qx-warm-up upload_id
  s3() {  # s3 PATH CURL-ARGUMENT...: a signed request below the warm-up bucket
    local path=$1
    shift
    curl -fsS -m 60 --aws-sigv4 "aws:amz:us-east-1:s3" -u "$access_key:$secret_key" \
      -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@" "http://127.0.0.1:$rgw_port/$warm$path"
  }
  failed_log=$dir/log/client.rgw.a.log
  s3 "" -X PUT >>"$quiet"
  s3 /o -T "$dir/ceph.conf" >>"$quiet"
  upload_id=$(s3 "/o?uploads=" -X POST | sed -n 's:.*<UploadId>\(.*\)</UploadId>.*:\1:p')
  [ -n "$upload_id" ] || fail "the S3 gateway began no multipart upload"
  {
    s3 "/o?uploadId=$upload_id" -X DELETE
    s3 /o -X DELETE
    s3 "" -X DELETE
  } >>"$quiet"
  log "S3 gateway: pools made after $((SECONDS - began))s"

  cat >"$dir/env.new" <<EOF
QX_S3_ENDPOINT=http://127.0.0.1:$rgw_port
QX_S3_ACCESS_KEY=$access_key
QX_S3_SECRET_KEY=$secret_key
QX_S3_REGION=us-east-1
QX_DAV_URL=http://127.0.0.1:$dav_port/dav
QX_DAV_USER=$dav_user
QX_DAV_PASSWORD=$dav_password
QX_DAV_ROOT=$nginx/www/dav
EOF
  mv "$dir/env.new" "$dir/env"
  trap - ERR
  cat "$dir/env"
  log "started in $((SECONDS - began))s"
}

case "$action" in
  start) start ;;
  stop)
    stop_all
    remove_runtime
    log "stopped" ;;
  *) usage ;;
esac
