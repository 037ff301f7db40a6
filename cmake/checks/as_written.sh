# For the checks that follow a page as it is written: its first block of commands
# sets up, and a test runs the others and compares.

# follow_first_block PAGE: runs the block in the project's folder; whatever folder and
# PATH it leads to, stay.
follow_first_block() {
    local block
    block=$(sed -n '/^```sh$/,/^```$/{/^```/d;p};/^```$/q' "$1")
    echo "== $1"
    echo "$block"
    eval "$block"
}

# Pages install the Debian packages, which are removed again in the end.
if [ "$(id -u)" -eq 0 ]; then sudo() { "$@"; }; fi
remove_packages() {
    sudo dpkg --purge tesk-bam libtesk-bam-dev libtesk-bam0.2 >/dev/null 2>&1 || true
}
trap remove_packages EXIT
