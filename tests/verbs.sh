# shellcheck shell=bash disable=SC2086,SC2046,SC2034,SC2013
# The verbs with which the tests arrange a scene and look at what a user would see. They are read by
# a shell that knows the folder of the tool's commands as $OPALCRT_TOOL_FOLDER.
# The tool gives nothing of this environment to its children. The sanitizers' report is not part of what it prints,
# and leaks cannot be looked for under strace.
export PATH=$OPALCRT_TOOL_FOLDER:$PATH
export ASAN_OPTIONS=log_path=/tmp/asan:detect_leaks=0 UBSAN_OPTIONS=log_path=/tmp/ubsan
S=/usr/opal/etc/certificate A=$S/_archive P=/usr/local/etc/certificate D=/usr/local/share/certificate.d
empty() { # the books
    echo '{"c": {"services": []}}' > INFO; echo [] > SERVICES; echo c > DEFAULT
}
crt() { # ID [PREFIX]: a certificate of its own, which INFO does not know yet
    mkdir -p $A/$1 && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=$1 \
        -keyout $A/$1/${2-}privkey.pem -out $A/$1/${2-}cert.pem 2>/dev/null
    cp $A/$1/${2-}cert.pem $A/$1/${2-}fullchain.pem; chmod 0400 $A/$1/*.pem
}
definition() { # SERVICES: drops the definition file of package p
    printf '%s\n' "{\"owner\": \"opalweb\", \"isPkg\": true, \"services\": $1}" > $D/p.cfg
}
define() { # SUBSCRIBER SERVICE...: the same with names alone
    jq -n '{owner: "opalweb", isPkg: true, services: [$ARGS.positional[1:][] |
        {service: ., display_name: "The \(.)"}]}' --args "$@" > "$D/$1.cfg"
}
books() { # which services the two books list
    jq -j '"list: ", (.[] | objects | "\(.subscriber)/\(.service) "), "info: "' $A/SERVICES
    jq -j 'to_entries[] | "\(.key): ", (.value.services? // [] | .[]? | objects | "\(.subscriber)/\(.service) ")' $A/INFO
}
replace() { # PROGRAM SCRIPT: until restore, or the end of the test; the script can start the $REAL one
    [ -e /run/real.${1##*/} ] || cat $1 > /run/real.${1##*/}
    printf '#!/bin/sh\nREAL=/run/real.%s\n%s\n' ${1##*/} "$2" > /run/stand.${1##*/}
    chmod 0755 /run/real.* /run/stand.*; mount --bind /run/stand.${1##*/} $(realpath $1)
}
fault() { # CALL N COMMAND...: the N-th such call of the tool itself (not of its children) is answered by EIO
    call=$1 when=$2; shift 2
    strace -qq -o /run/fault -e signal=none -e trace=$call -e inject=$call:error=EIO:when=$when "$@"
    grep -q INJECTED /run/fault || echo "fewer calls"
}
restore() { # also takes away what "mount -t tmpfs test FOLDER" made
    for place in $(awk '$1 == "test" || $2 ~ "^/usr/(bin|opal/etc)/" {print $2}' /proc/mounts); do umount $place; done
}
cd $A 2>/dev/null || :
