# For doxygen: the house's way of writing headers, told in its own.
#
# The lines at the top of a header, which are plain comments, become the file's description; the first empty line goes, so
# that the lines behind it keep their numbers. A comment speaks of all declarations below it up to the next empty line or
# comment: from the second on each of them gets a copy.

function indent_of(line) { match(line, /^ */); return RLENGTH }

NR == 1 { print "/// @file" }
!is_past_top && /^\/\// { print "/" $0; next }
{ is_past_top = 1 }
/^$/ { said = "" }
/^$/ && !is_dropped { is_dropped = 1; next }
/^ *\/\/\/[^<]/ {
    if (!is_comment) { said = ""; indent = indent_of($0) }
    is_comment = 1
    said = said " " substr($0, indent_of($0) + 5)
    print
    next
}
{
    is_first = is_comment
    is_comment = 0
    if (indent_of($0) != indent || /^ *[}#]/) said = indent_of($0) < indent ? "" : said
    else if (!is_first && said != "" && is_statement_over && !/\/\/\/</) $0 = "/**" said " */ " $0
    is_statement_over = /[;}]( *\/\/.*)?$/
    print
}
