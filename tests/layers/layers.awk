# Reads the table of layers, then lines "FILE HEADER". See layers.sh.

# "ZuNetwork/ZuSocket_C.cpp" belongs to the family ZuSocket_C: that of its own name, or the longest
# that its name begins with (KdProtocolReqOptions.cpp: KdProtocolReq).
function family(file,    stem, name, best) {
  stem = file
  sub(/.*\//, "", stem)
  sub(/\.[a-z]+$/, "", stem)
  if (stem in layer) return stem
  for (name in layer) {
    if (index(stem, name) == 1 && length(name) > length(best)) best = name
  }
  return best
}

function complain(text) {
  print text > "/dev/stderr"
  bad = 1
}

# Whether the file may include the header: "" or the reason why not.
function objection(file, header,    from, to) {
  from = family(file)
  to = family(header)
  if (from == "") return file " stands in no layer of CONTRIBUTING.md"
  if (to == "") return header " stands in no layer of CONTRIBUTING.md"
  if ((file " " header) in allowed) return ""
  if (wing[from] != wing[to]) return file " includes " header " of the other wing"
  if (layer[from] < layer[to]) return file " includes " header " of a layer above it"
  return ""
}

# The headers of the wings that the file includes, those behind internal headers as well.
function reach(file, from,    i, header) {
  for (i = 1; i <= count[from]; ++i) {
    header = included[from, i]
    if (header ~ /^ZuNetwork\/internal\//) {
      if (!((file, header) in seen)) {
        seen[file, header] = 1
        users[header] = users[header] " " wing[family(file)]
        reach(file, header)
      }
    } else if (header ~ /^ZuNetwork\// && header != "ZuNetwork/ZuNetworkExport.h") {
      reached[file] = reached[file] " " header
    }
  }
}

FNR == NR && /^ *\| (sockets|transfers) \|/ { # | sockets | A, B ← C |
  split($0, cell, / *\| */)
  layers = split(cell[3], names, / *← */)
  for (i = 1; i <= layers; ++i) {
    members = split(names[i], member, /[`, ]+/)
    for (j = 1; j <= members; ++j) {
      if (member[j] == "") continue
      layer[member[j]] = i
      wing[member[j]] = cell[2]
    }
  }
}
FNR == NR && /^ *\| back \|/ { # | back | `A.cpp` → `B.h` (reason) |
  while (match($0, /`[^`]*` → `[^`]*`/)) {
    split(substr($0, RSTART, RLENGTH), pair, /`( → `)?/)
    allowed["ZuNetwork/" pair[2] " ZuNetwork/" pair[3]] = 1
    $0 = substr($0, RSTART + RLENGTH)
  }
}
FNR == NR { next }

{
  if (!($1 in count)) files[++total] = $1
  included[$1, ++count[$1]] = $2
}

# What needs no look at the layers.
$1 ~ /^ZuUtils\// && $2 ~ /^(ZuNetwork|zu)\// { complain($1 " includes " $2 " of the library above") }
$1 ~ /^ZuNetwork\// && $2 ~ /^zu\// { complain($1 " includes " $2 " of the library above") }
$2 ~ /\/internal\// && $1 !~ /\/internal\// && $1 ~ /\.h$/ {
  complain($1 ", which is installed, includes " $2 ", which is not")
}
# The two lower libraries are built and installed together, and ZuUtils/internal/ has no functions of
# its own to export: both may use it. zu/ is built on what is installed.
$2 ~ /\/internal\// && substr($1, 1, index($1, "/")) != substr($2, 1, index($2, "/")) &&
!($1 ~ /^ZuNetwork\// && $2 ~ /^ZuUtils\//) {
  complain($1 " includes " $2 " of another library")
}

END {
  if (total == 0 || length(layer) == 0) complain("nothing to compare")
  for (n = 1; n <= total; ++n) {
    file = files[n]
    if (file !~ /^ZuNetwork\/[^\/]*$/ || file ~ /Export\.h$/) continue
    reach(file, file)
    headers = split(reached[file], header, " ")
    if (family(file) == "") complain(file " stands in no layer of CONTRIBUTING.md")
    for (i = 1; i <= headers; ++i) {
      reason = objection(file, header[i])
      if (reason != "") complain(reason)
      from = family(file)
      to = family(header[i])
      if (from != to) arrow[from, to] = layer[from] < layer[to] ? "-.->" : "-->"
    }
  }
  # What both wings use knows neither.
  for (file in users) {
    if (users[file] !~ /sockets/ || users[file] !~ /transfers/) continue
    for (i = 1; i <= count[file]; ++i) {
      if (included[file, i] ~ /^(curl|openssl|netinet|arpa|net)\/|^(netdb|ifaddrs|sys\/socket)\.h$/) {
        complain(file " serves both wings and includes " included[file, i])
      }
    }
  }
  if (what == "picture") draw()
  exit bad
}

# The families by wing, and an arrow for each that includes another; those that follow from two
# others are left out. Dotted: against the order.
function draw(    pair, end, a, b, c, n) {
  print "flowchart BT"
  for (n = 1; n <= total; ++n) {
    c = family(files[n])
    if (files[n] ~ /^ZuNetwork\// && c != "") drawn[wing[c], c] = 1
  }
  draw_wing("sockets")
  draw_wing("transfers")
  print "  sockets & transfers --> ZuUtils"
  print "  zu --> sockets"
  for (pair in arrow) {
    split(pair, end, SUBSEP)
    a = end[1]
    b = end[2]
    for (c in layer) {
      if (c != a && c != b && (a, c) in arrow && (c, b) in arrow) b = ""
    }
    if (b != "") print "  " a " " arrow[pair] " " b | "LC_ALL=C sort"
  }
  close("LC_ALL=C sort")
}

function draw_wing(name,    pair, end) {
  print "  subgraph " name
  for (pair in drawn) {
    split(pair, end, SUBSEP)
    if (end[1] == name) print "    " end[2] | "LC_ALL=C sort"
  }
  close("LC_ALL=C sort")
  print "  end"
}
