// What the help of each subcommand says beneath its options.

#pragma once

// Of every subcommand that takes a generation.
inline constexpr char kChoiceFooter[] =
    R"(A NAME may be the beginning of one, except to remove. With --latest, --at or
--before, a DOCUMENT stands in its place, and the generation is chosen among
those kept of it: --at takes the newest at the end of the day, minute or second
that TIME names, --before the newest from before it began. A TIME is local,
2026-03-01 or "2026-03-01 10:15:30", or has a zone at its end, Z or +01:00; or
it is now, today, "yesterday 10:15", "2 hours ago", or @ and the seconds since
1970.

)";

// Of those that also take one item of it.
inline constexpr char kItemFooter[] =
    R"(NAME/chapters/one.txt is one item of a generation that is a folder, and so is
--path chapters/one.txt with a NAME or a choice.

)";

inline constexpr char kAddFooter[] = R"(
Each document, a file or a directory with everything in it, becomes a
generation: a write-protected copy. Its name is printed. Files named "._..."
are left out; FIFOs, sockets and devices can't be kept. Symbolic links are kept
as links; a document that is itself a link is resolved first. A file of a
directory that is the same in the document's newest generation shares its room
with that, as a hard link, after a comparison of every byte, unless it can be
cloned or the document is moved. Ctrl-C leaves nothing behind. A document that
another program changes meanwhile is kept, perhaps with parts of both states,
and that is said; --retry reads it once more. --tag is as in "vaultry set".

With --if-changed, a document that is what its newest version holds is not kept
again. Every byte is compared, and all else that a copy brings back.

Examples:
  vaultry add report.txt Photos/         as report-2026-03-01T10-15-30Z.txt, ...
  vaultry add --if-changed report.txt    may be called every hour
  vaultry add --name before-review report.txt
  vaultry add --pin --tag reader=Ada report.txt
  vaultry add --move old-draft.txt       into the store, and away from here)";

inline constexpr char kListFooter[] = R"(
Oldest first. Times are local. A generation that another program added may have
no time and no document. If the metadata of one can't be read, "?" stands in
their place, a message says what is wrong, and the exit status is that of a
failure; the others are listed all the same. With a DOCUMENT, a generation whose
document can't be read is not listed, but has its message. With --json, one
object a line: name, document, kept, size, options, display_name, backup_of for
what a restore put aside, pinned, and problems, a list of messages, where there
are any. On a terminal, documents lose their first folders where they are too
wide, and what is longer than the screen is shown by $VAULTRY_PAGER, $PAGER or
less.
--documents shows how many generations there are of each document, the first and
the last time, and the size of all, as if nothing were shared.

Examples:
  vaultry list
  vaultry list --since yesterday --limit 20
  vaultry list report.txt                the history of one document
  vaultry list --long --client nimbusync)";

inline constexpr char kShowFooter[] = R"(
Permissions and flags are those that the document had, not those that protect
the generation. What can't be read is left out, a message says what is wrong,
and the exit status is that of a failure. With --json the messages are also
listed under problems.

Examples:
  vaultry show before-review
  vaultry show --latest report.txt
  vaultry show before-review/            what the folder holds)";

inline constexpr char kRestoreFooter[] = R"(
The document keeps its own permissions and flags. Its present state is kept
first, as a generation of its own whose name is printed; "vaultry undo" brings
it back, and --latest, --at and --before pass it over. A generation of another
document, and a folder over a file or a file over a folder, want --replace.
Where DOCUMENT is a link, its target is meant. Of one item, only that is
replaced, and DOCUMENT is the whole folder, which is kept first. If another
program saves the file meanwhile, the restore fails and keeps what was saved. If
the generation's name ends in another extension, the document gets that
extension. A document that is gone is copied back.

Examples:
  vaultry restore --latest report.txt
  vaultry restore --at 2026-03-01 report.txt
  vaultry restore --latest --path chapters/one.txt novel
  vaultry restore before-review report.txt)";

inline constexpr char kUndoFooter[] = R"(
Brings back the newest state of DOCUMENT that a restore, or an undo, put aside.
What it is now is put aside in turn: undo once more, and it is back.

Example:
  vaultry undo report.txt)";

inline constexpr char kMovedFooter[] = R"(
All that is kept of OLD counts as kept of NEW from then on, so that list, undo
and --latest find it there. The store alone is changed: move the document first.
If OLD is still there, or NEW is not, or has generations of its own, --anyway is
wanted. Two histories that are joined can't be told apart again. In a folder
that was moved, each document with a history of its own wants a call of its own.
A restore of a version that was kept under another extension gives that one
back.

Example:
  mv draft.txt report.txt; vaultry moved draft.txt report.txt)";

inline constexpr char kDiffFooter[] = R"(
Compares with the document that the generation was made from, or with another
document or generation: items, bytes, links, permissions, attributes, access
lists, flags, and owners where you may give files away. Of one item, the same
item of the other is compared. Exit status 0 if nothing differs, 1 if something
does, 2 or more if not all could be compared.

Examples:
  vaultry diff before-review
  vaultry diff before-review/chapters/one.txt
  vaultry diff --stat --latest Photos/
  vaultry diff --at yesterday report.txt
  vaultry diff before-review after-review)";

inline constexpr char kSetFooter[] = R"(
key=text sets a text, key:=json a number, true or false, a list or a dictionary;
{"$date": "2026-03-01T10:15:30Z"} and {"$data": "base64"} are a date and bytes.

Examples:
  vaultry set before-review author=Ada reviewed:=true
  vaultry set before-review --unset author --display-name "Report")";

inline constexpr char kSealFooter[] = R"(
Reads each generation and notes a digest of all that it holds in its info, by
which "check --read" names each file that has rotted. What is sealed stays so.

Examples:
  vaultry seal before-review
  vaultry seal --latest report.txt
  vaultry seal --all)";

inline constexpr char kCheckFooter[] = R"(
Each finding is shown with its path and its meaning. --repair mends what is safe
to mend: it puts protection back, returns a document that an interrupted
operation left aside to its place, and removes anything else that the operation
left behind. What a running operation works on is left alone.
The contents of generations are never touched.

--read also reads all generations that are sealed, from the disk, and names each
file that is not what it was when it was sealed, or can't be read. Ten that have
changed are told apart in a generation, and nearly always twenty; of more, all
that may have changed are named. Seal with "vaultry seal" or "add --seal".

Examples:
  vaultry check --repair
  vaultry check --read)";

inline constexpr char kUsageFooter[] = R"(
One line a generation: the bytes of its files, and how much room the store
gains if that one alone is removed. Then the sums, and what is free. Files that
generations share, as hard links or as clones, take their room once, and it
is freed with the last of them. Where a volume does not tell which clones
share their data, that is said, and each counts as if it shared nothing.
Documents, and whatever else is cloned from them, do not count: data that one
of them shares is not free before that is gone, too.

Examples:
  vaultry usage
  vaultry usage report.txt)";

inline constexpr char kCloneFooter[] = R"(
Copies STORE, or the one that --store names, to TARGET, where nothing is or an
empty directory: all generations with all that is known of them, protected.
Files that they share take their room once in the copy, too. Then every item is
read back and compared with the store, and what is sealed with its seal. TARGET
is no store before it was compared, and Ctrl-C leaves nothing there until then.
What can't be copied, or has rotted, is named, and the exit status is that of a
failure. Nobody can add or remove meanwhile, only read.

Examples:
  vaultry clone /mnt/disk/versions
  vaultry clone --store /srv/versions /mnt/disk/versions)";

inline constexpr char kCompletionFooter[] = R"(
Commands, options, their values and the names of generations are completed.

Examples:
  source <(vaultry completion bash)      in ~/.bashrc
  source <(vaultry completion zsh)       in ~/.zshrc, behind compinit
  vaultry completion fish | source       in ~/.config/fish/config.fish)";

inline constexpr char kCopyFooter[] = R"(
The copy is an ordinary document again, with the permissions that it had.
As with cp, a DESTINATION that is a directory receives it under the document's
own name, and any other DESTINATION is its new name. Nothing that exists is
ever replaced. The path of the copy is printed. Copying can't be interrupted
half-way: after Ctrl-C the copy is removed as soon as it is complete; a second
Ctrl-C ends at once and leaves what has been written.

Examples:
  vaultry copy before-review report-old.txt
  vaultry copy first-print/chapters/one.txt .
  vaultry copy --before 2026-03-01 report.txt report-of-february.txt
  vaultry copy report-2026-03-01T10-15-30Z.txt /tmp    to /tmp/report.txt)";

inline constexpr char kRemoveFooter[] = R"(
Give the whole name of a generation here: a beginning that is typed once too
often could remove another one. Names that the store doesn't hold are reported;
the others are removed. Those that were chosen of a DOCUMENT's are named. One
that is pinned stays, unless --pinned is given.

Examples:
  vaultry remove before-review
  vaultry remove --latest report.txt)";

inline constexpr char kPruneFooter[] = R"(
Goes through the store a document at a time, and removes each generation that no
rule keeps. Without a rule it refuses. Hours, days, weeks (from Monday), months
and years are those of the local calendar, and only those with a generation
count; an hour that clocks show twice is two. A SPAN is like 36h, 30d, 8w, 6m or
1y6m. The newest generation of a document always stays, and so does one that is
pinned, and one whose time is still to come. What restores put aside is thinned
out by the same rules, but apart from the versions.

Generations of other programs, without a time or a document, stay. --foreign
prunes them too, apart from the others: by when they last changed in the store
if they have no time, and by display name if they have no document.

--dry-run prints a line for each generation: whether it would stay, and by which
rules; and how many would go. Without it, one line says how many went and how
many are left.

Examples:
  vaultry prune --dry-run --keep-last 10 --keep-daily 30 --keep-monthly 24
  vaultry prune --keep-within 1y report.txt)";

inline constexpr char kPinFooter[] = R"(
A pinned generation is never pruned, and "remove" wants --pinned for it.

Examples:
  vaultry pin "to the printer"
  vaultry pin --latest report.txt
  vaultry unpin "to the printer")";

inline constexpr char kDestroyFooter[] = R"(
Says how many generations go, and asks first. Refuses a directory that is not a
store, and a store with a document that an interrupted operation left aside,
which "check --repair" gives back. If it is cut short, call it again: it goes
on.

Example:
  vaultry destroy --store /tmp/try --yes)";

inline constexpr char kInitFooter[] = R"(
Makes the directory, for you alone, or takes an empty one. Nothing changes in
a directory that is a store already, and any other is refused.

Example:
  vaultry init --store /srv/versions)";
