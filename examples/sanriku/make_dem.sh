#!/usr/bin/env bash
# Rebuilds sanriku_dem.tif: a synthetic elevation grid of the Sanriku ria
# coast (Iwate, Japan) whose shoreline is the real GSHHG full-resolution one.
# Heights and depths are invented from the distance to that shoreline.
#
# Needs GMT 6 with the full-resolution GSHHG coastlines (Debian packages
# gmt, gmt-gshhg-full) and the GDAL command-line tools (gdal-bin).
# Usage: examples/sanriku/make_dem.sh   (from any directory)
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
out="$here/sanriku_dem.tif"

west=141.3 east=142.3 south=38.6 north=39.6
res=6          # cell size in arc-seconds; 6" keeps the bays several cells wide
pad=1.0        # degrees of coastline fetched around the area, see the check below
region="$west/$east/$south/$north"

for tool in gmt gdal_translate awk; do
    command -v "$tool" >/dev/null || { echo "make_dem.sh: $tool not found" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
# Keep GMT's session files and history out of the user's home and the repo.
export GMT_USERDIR="$work" GMT_TMPDIR="$work"

ncols=$(awk -v a="$west" -v b="$east" -v r="$res" 'BEGIN { printf "%d", (b - a) * 3600 / r + 0.5 }')
nrows=$(awk -v a="$south" -v b="$north" -v r="$res" 'BEGIN { printf "%d", (b - a) * 3600 / r + 0.5 }')

# Levels 0/1 only: lakes count as land, so no inland basin gets a sea depth.
gmt grdlandmask -R"$region" -I"${res}s" -r -Df -A0/1/1 -N0/1 -Gland.nc

# Distances to the shore.  grdmath's geographic LDIST is correct but takes
# tens of minutes at this size, so the shoreline is mapped to kilometres on
# a flat earth tangent at the centre latitude (< 1 % error over one degree).
# The coastline comes from a padded area because the nearest shore of a cell
# near the edge may lie outside it.
read -r rw re rs rn < <(awk -v w="$west" -v e="$east" -v s="$south" -v n="$north" -v p="$pad" \
    'BEGIN { print w - p, e + p, s - p, n + p }')
gmt coast -R"$rw/$re/$rs/$rn" -Df -A0/1/1 -W -M > coast_bins.txt
# coast cuts the shoreline at its internal bin edges; rejoining the pieces
# cuts the number of segments, and so of LDIST passes below.
gmt connect coast_bins.txt -fg -T1e > coast.txt

read -r kx ky < <(awk -v s="$south" -v n="$north" \
    'BEGIN { r = 111.195; print r * cos((s + n) / 2 * atan2(1, 1) / 45), r }')
awk -v w="$west" -v s="$south" -v kx="$kx" -v ky="$ky" \
    '/^>/ { print; next } { printf "%.6f %.6f\n", ($1 - w) * kx, ($2 - s) * ky }' \
    coast.txt > coast_km.txt

# GMT 6.4's Cartesian LDIST returns wrong minima when a file holds several
# segments, so each segment gets its own file and grdmath takes the minimum.
mkdir seg
gmt convert coast_km.txt -Dseg/%04d.txt
ops=()
for f in seg/*.txt; do
    ops+=("$f" LDIST)
    if [ "${#ops[@]}" -gt 2 ]; then ops+=(MIN); fi
done
width=$(awk -v a="$west" -v b="$east" -v k="$kx" 'BEGIN { print (b - a) * k }')
height=$(awk -v a="$south" -v b="$north" -v k="$ky" 'BEGIN { print (b - a) * k }')
# -Ve: the long operator chain only triggers a harmless warning about
# truncating the command string kept in the grid header.
gmt grdmath -Ve -R"0/$width/0/$height" -I"${ncols}+n/${nrows}+n" -r "${ops[@]}" = dist.nc
gmt grdedit dist.nc -R"$region" -fg

farthest=$(gmt grdinfo -C dist.nc | cut -f7)
awk -v d="$farthest" -v p="$pad" -v kx="$kx" 'BEGIN { exit !(d < p * kx) }' || {
    echo "make_dem.sh: a cell is $farthest km from the shore, more than the padding covers" >&2
    exit 1
}

# Smooth, monotone profiles: land rises from +2 m towards ~600 m, the sea
# deepens from -2 m towards ~400 m; rounding to 0.1 m helps compression.
gmt grdmath land.nc \
    2 600 1 dist.nc 15 DIV NEG EXP SUB MUL ADD \
    -2 400 1 dist.nc 25 DIV NEG EXP SUB MUL SUB \
    IFELSE 10 MUL RINT 10 DIV = dem.nc

# PROFILE=GeoTIFF leaves out the netCDF history GDAL would otherwise copy;
# -a_ullr pins the corners exactly instead of trusting rounded cell centres.
gdal_translate -q -of GTiff -ot Float32 -a_srs EPSG:4326 -a_nodata none \
    -a_ullr "$west" "$north" "$east" "$south" \
    -co COMPRESS=DEFLATE -co PREDICTOR=3 -co PROFILE=GeoTIFF \
    dem.nc dem.tif
mv dem.tif "$out"
echo "wrote $out"
