# shellcheck shell=bash disable=SC2034,SC2154
# The remote of the demo: a private WebDAV server on loopback. Sourced by scripts/demo, which sets
# "home".
remote_targets=(tarn_module_webdav)
remote_setup=webdav
remote_end=""
server_pid=""

answers() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

write_server_configuration() {
  local modules=/usr/lib/apache2/modules
  cat <<END
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule dav_module $modules/mod_dav.so
LoadModule dav_fs_module $modules/mod_dav_fs.so
ServerRoot $server
ServerName 127.0.0.1
Listen 127.0.0.1:$port
PidFile $server/pid
ErrorLog $server/log
DavLockDB $server/work/locks
DocumentRoot $server/files
<Directory $server/files>
Require all granted
Dav On
</Directory>
END
  ((EUID != 0)) || printf 'User www-data\nGroup www-data\n'
}

# Prepares the remote with hello.txt and a folder, and says how to mount it.
start_remote() {
  server=$home/server
  local port=0
  until ((port)) && ! answers "$port"; do
    port=$((20000 + RANDOM % 12000))
  done
  mkdir -p "$server/files/folder" "$server/work"
  echo "Hello from the remote" >"$server/files/hello.txt"
  if ((EUID == 0)); then
    chmod 711 "$home"
    chown -R www-data "$server/files" "$server/work"
  fi
  write_server_configuration >"$server/configuration"
  # Where systems keep their servers is in the PATH of administrators only.
  PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin apache2 -DFOREGROUND -f "$server/configuration" </dev/null &>"$server/output" &
  server_pid=$!
  remote_end="kill $server_pid"
  for _ in {1..100}; do
    if answers "$port"; then
      mount_arguments=(webdav "http://127.0.0.1:$port/")
      echo "A private WebDAV server is running on port $port of this machine."
      return
    fi
    sleep 0.1 # a server takes a moment to start
  done
  fail "starting the WebDAV server"
}

stop_remote() {
  [[ -n $server_pid ]] || return 0
  kill "$server_pid" 2>/dev/null || true
  wait "$server_pid" 2>/dev/null || true
}

# Whether a file of the remote has the content of another file.
remote_has() { cmp -s "$server/files/$1" "$2"; }
