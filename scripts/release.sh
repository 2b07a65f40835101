#!/usr/bin/env bash
# Holds the numbers of a release against each other, and makes it.
#   release.sh --check  the versions of project(), CHANGELOG.md, the Debian changelog, the library's soname and
#                       its symbols agree
#   release.sh          the same, and this revision can be released: no change of the CHANGELOG is unreleased, the
#                       tree is clean, the tag is not there
#   release.sh --make   the same, and makes the Debian packages in build/package/packages and the tag
# A release also passes .ci/run. Nothing is pushed or published.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BUILD=$ROOT/build/package
MAP=$ROOT/src/libtidegate_metrics.map
VERSION=$(sed -n '/^project(/,/)/s/^ *VERSION //p' "$ROOT/CMakeLists.txt")
MAJOR=${VERSION%%.*}
TAG=v$VERSION

# same <what> <found>: it has to be the version of project().
same() {
  [[ $2 == "$VERSION" ]] || die "project() has version $VERSION, $1 has ${2:-none}"
}

# all_are <what> <expected> <lines>
all_are() {
  [[ $(sort -u <<<"$3") == "$2" ]] || die "$1: expected $2, found $(sort -u <<<"$3" | tr '\n' ' ')"
}

check_numbers() {
  same "the newest release of CHANGELOG.md" \
    "$(sed -nE 's/^## \[([0-9.]+)\] - [0-9]{4}-[0-9]{2}-[0-9]{2}$/\1/p' "$ROOT/CHANGELOG.md" | head -n 1)"
  same "the newest entry of cmake/debian/changelog" \
    "$(sed -nE '1s/^tidegate-metrics \(([0-9.]+)-.*/\1/p' "$ROOT/cmake/debian/changelog")"
  all_are "versions of symbols in $(basename "$MAP")" "TIDEGATE_METRICS_$MAJOR" \
    "$(grep -oE '^TIDEGATE_METRICS_[0-9]+' "$MAP")"
  all_are "versions of symbols in cmake/exported_symbols.txt" "@@TIDEGATE_METRICS_$MAJOR" \
    "$(grep -oE '@@.*$' "$ROOT/cmake/exported_symbols.txt")"
  build package tidegate_metrics
  local library=$BUILD/src/libtidegate_metrics.so.$VERSION
  [[ -f $library ]] || die "there is no $library"
  all_are "soname" "libtidegate_metrics.so.$MAJOR" \
    "$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
  step "all numbers are those of version $VERSION"
}

check_revision() {
  local unreleased
  unreleased=$(sed -n '/^## \[Unreleased\]/,/^## \[[0-9]/{/^[-*]/p}' "$ROOT/CHANGELOG.md")
  [[ -z $unreleased ]] || die "CHANGELOG.md has unreleased changes"
  [[ -z $(git -C "$ROOT" status --porcelain) ]] || die "the tree is not clean"
  ! git -C "$ROOT" rev-parse -q --verify "refs/tags/$TAG" >/dev/null || die "the tag $TAG is there"
  step "$(git -C "$ROOT" rev-parse --short HEAD) can be released as $TAG"
}

make_release() {
  build package
  step "making the packages"
  rm -rf "$BUILD/packages"
  (cd "$BUILD" && quietly cpack -G DEB --config CPackConfig.cmake -B packages)
  git -C "$ROOT" tag -a "$TAG" -m "tidegate $VERSION"
  step "made the tag $TAG and"
  ls "$BUILD"/packages/*.deb
}

case "$*" in
  "" | --check | --make) ;;
  *) die "usage: release.sh [--check | --make]" ;;
esac
need_packages "${BUILD_PACKAGES[@]}"
check_numbers
[[ $* == --check ]] || check_revision
[[ $* != --make ]] || make_release
