# Drops the paragraph macros that scdoc 1.11 writes where they do nothing (right after a
# heading, before another paragraph break, a heading or the end of an indented block) and
# its blank lines, which mandoc -T lint reports. The rendered page is the same.
function isBreak(line) {
    return line ~ /^\.(SH|P|RE|TH)( |$)/ || line == ""
}
{
    if ($0 == "") {
        next
    }
    if (pending && !isBreak($0)) {
        print ".P"
    }
    pending = 0
    if ($0 == ".P") {
        pending = !(last ~ /^\.(SH|TH|RS)( |$)/)
        next
    }
    print
    last = $0
}
