# Used by scripts/robustness.sh: awk -f header_rooms.awk include/kolt/kolt.h
# The KOLT_*_MAX rooms of the header with what they are for: the define's
# own comment, else the sentence of the comment block above that names it.
/^\/\*/ { block = ""; inblock = 1 }
inblock {
    line = $0
    sub(/^ *\/?\*+\/? ?/, "", line); sub(/ *\*\/ *$/, "", line)
    block = block " " line
    if ($0 ~ /\*\//) { inblock = 0; block_end = NR }
    next
}
/^#define KOLT_[A-Z0-9_]+MAX +[0-9]+/ {
    name = $2; bytes = $3; meaning = ""
    if (match($0, /\/\*.*\*\//)) {
        meaning = substr($0, RSTART + 2, RLENGTH - 4)
    } else {
        n = split(block, sentences, /\. /)
        for (i = 1; i <= n; i++)
            if (index(sentences[i], name)) { meaning = sentences[i]; break }
        if (meaning == "" && block_end == NR - 1) meaning = block
    }
    gsub(/^ +| +$/, "", meaning); gsub(/ +/, " ", meaning); sub(/\.$/, "", meaning)
    printf "| `%s` | %s | %s |\n", name, bytes, meaning
}
