# Sourced: an emulated machine with Debian's stock cloud kernel, for what the kernel or the init system here may lack.
#   machine_fetch DIRECTORY              the kernel, into DIRECTORY/kernel; exits with 77 when there is none
#   machine_modules ROOT                 puts the modules for networks into a file tree; they are loaded when they are asked for
#   machine_run ROOT MEGABYTES SECONDS   starts /init of the tree and prints its console until it powers off, or so long

unavailable() { echo "$*"; exit 77; }

machine_newest() { apt-cache depends linux-image-cloud-amd64 2>/dev/null | sed -n 's/.*Depends: \(linux-image-[^ ]*\).*/\1/p'; }

# Unpacked once: its newest package of those that the package lists name.
machine_download() {
    machine_package=$(machine_newest) && [ -n "$machine_package" ] || return 1
    [ ! -e "$machine_cache/$machine_package/boot" ] || return 0
    mkdir -p "$machine_cache"
    (cd "$machine_cache" && rm -rf unpacked linux-image-* && timeout 300 apt-get download -qq "$machine_package" &&
        dpkg-deb -x "$machine_package"_*.deb unpacked) && mv "$machine_cache/unpacked" "$machine_cache/$machine_package"
}

machine_fetch() {
    machine_cache=$1/kernel
    [ "$(dpkg --print-architecture)" = amd64 ] || unavailable "the kernel and its machine are amd64's"
    for needed in qemu-system-x86_64 busybox; do
        command -v $needed >/dev/null || unavailable "needs $needed (scripts/install test)"
    done
    machine_download || { timeout 300 apt-get update -qq && machine_download; } || unavailable "cannot download linux-image-cloud-amd64"
    machine_version=${machine_package#linux-image-}
}

machine_modules() {
    local from=$machine_cache/$machine_package/lib/modules/$machine_version to=$1/lib/modules/$machine_version
    mkdir -p "$to/kernel/drivers"
    cp -r "$from"/modules.{builtin,builtin.modinfo,order} "$to"
    cp -r "$from/kernel"/{net,lib,crypto} "$to/kernel"
    cp -r "$from/kernel/drivers/net" "$to/kernel/drivers"
    busybox depmod -b "$1" "$machine_version"
}

machine_run() {
    (cd "$1" && find . | busybox cpio -o -H newc 2>/dev/null) >"$machine_cache/initramfs" # to unpack takes an emulated processor long
    timeout "$3" qemu-system-x86_64 -M pc -accel tcg -cpu max -m "$2" -smp 1 -no-reboot -nodefaults -display none \
        -serial stdio -kernel "$machine_cache/$machine_package/boot/vmlinuz-$machine_version" -initrd "$machine_cache/initramfs" \
        -append "console=ttyS0 quiet panic=-1 random.trust_cpu=on mitigations=off" </dev/null 2>&1 | tr -d '\r' || true
}
