# What the pages need after scdoc, in sed (GNU).
#
# scdoc turns hyphenation off before .TH, which turns it on again: off after
# it too, so that no word is broken at a hyphen it does not have.
/^\.TH /a .nh
# A hyphen in bold text (an option, a command, a path) becomes a minus sign:
# the line is never broken there, and it copies as the character to type.
:minus
s/\(\\fB[^\\]*\)-/\1\\-/
t minus
