# shellcheck shell=bash disable=SC2034,SC2154
# The remote of the demo: a folder of this machine. Sourced by scripts/demo, which sets "home".
remote_targets=(tarn_module_local)

# Prepares the remote with hello.txt and a folder, and says how to mount it.
start_remote() {
  mkdir -p "$home/backing/folder"
  echo "Hello from the remote" >"$home/backing/hello.txt"
  mount_arguments=(local "$home/backing")
}

# Whether a file of the remote has the content of another file.
remote_has() { cmp -s "$home/backing/$1" "$2"; }
