# shellcheck shell=bash
# The sample users of the demonstration and what happens in their directories from day to day.

# shellcheck disable=SC2034  # for the script that reads this file
demo_users=(anna boris shop.example)

# prose LINES SEED: prints some text, always the same for one seed.
prose() {
    awk -v lines="$1" -v seed="$2" 'BEGIN {
        srand(seed)
        count = split("backup storage slice catalogue evening morning invoice garden letter window river " \
                      "station bread market winter summer paper signal harbour mountain", words, " ")
        for (i = 0; i < lines; ++i) {
            line = ""
            for (j = 0; j < 10; ++j) line = line words[1 + int(rand() * count)] " "
            print line int(rand() * 100000)
        }
    }'
}

noise() { head -c "$1" /dev/urandom; }

# A web site: pages are edited, pictures are added and removed.
anna_first_day() {
    mkdir -p "$1/site/pages" "$1/site/pictures"
    local n
    for n in {1..24}; do prose 60 "$n" >"$1/site/pages/page-$n.html"; done
    for n in {1..10}; do noise 62000 >"$1/site/pictures/picture-$n.jpg"; done
}

anna_next_day() {
    local day=$2
    prose 70 "$((day + 100))" >"$1/site/pages/page-$((1 + day % 24)).html"
    noise 30000 >"$1/site/pictures/of-day-$day.jpg"
    rm -f "$1/site/pictures/of-day-$((day - 3)).jpg"
}

# A mailbox: letters arrive, old letters are deleted, the file "log" only grows.
boris_first_day() {
    mkdir -p "$1/Maildir/cur" "$1/Maildir/attachments with a long name"
    local n
    for n in {1..80}; do prose 30 "$n" >"$1/Maildir/cur/letter-$n"; done
    for n in {1..12}; do noise 43000 >"$1/Maildir/attachments with a long name/photo $n.raw"; done
    prose 200 7 >"$1/Maildir/log"
}

boris_next_day() {
    local day=$2 n
    for n in 1 2 3; do prose 40 "$((day * 10 + n))" >"$1/Maildir/cur/letter-of-day-$day-$n"; done
    noise 12000 >"$1/Maildir/attachments with a long name/day $day.raw"
    rm -f "$1/Maildir/cur/letter-$day"
    prose 20 "$day" >>"$1/Maildir/log"
}

# A shop: a database that is rewritten, an order list, and a manual (copies of this project's documentation).
shop.example_first_day() {
    mkdir -p "$1/db" "$1/orders"
    # shellcheck disable=SC2154  # top is set by common.sh
    cp -r "$top/kro" "$top/quarn2" "$1/"
    noise 480000 >"$1/db/articles"
    noise 40000 >"$1/db/stock"
    : >"$1/orders/empty.csv"
    ln -s ../db/stock "$1/orders/current"
}

shop.example_next_day() {
    local day=$2
    noise 40000 >"$1/db/stock"
    prose 30 "$day" >>"$1/orders/orders.csv"
    chmod 640 "$1/orders/orders.csv"
}
