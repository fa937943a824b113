#!/bin/sh
# check_exports.sh <nm> <c++filt> <library>
# Lists the defined dynamic symbols of the library, demangled, and fails on any symbol that
# is not part of the public interface, and on a missing core export.
set -eu
nm=$1
filt=$2
lib=$3

classes='PXConnection|PXNSConnection|PXParser|PXCallback|PXDelayCallback|PXLogReceiver|PXDummyLogger|PXClientManager'
functions='PXST_[A-Za-z0-9_]*|LOD_[A-Za-z0-9_]*|Format[A-Za-z0-9_]*|CalcHostCrc|EscapeXonXoff|PXLogString|PXLogBytes|fgetl|countPacketWords'

allowed="^(($functions)(\(.*\))?"
# Members of the public classes and of their nested types, with their vtables, typeinfo,
# thunks and guard variables (staticMetaObject is a member).
allowed="$allowed|(($classes)(::|$).*)"
allowed="$allowed|((vtable|VTT|typeinfo|typeinfo name|construction vtable|guard variable) for ($classes)(::| |-|$).*)"
allowed="$allowed|((non-virtual|virtual) thunk to ($classes)::.*)"
allowed="$allowed|_init|_fini"
# Sanitizer builds only: UndefinedBehaviorSanitizer's vptr check emits Qt's weak typeinfo of
# QObjectData (default-visible, as Qt exports the class) into every object that checks a
# QObject's d_ptr. Absent from non-sanitizer builds.
allowed="$allowed|typeinfo (name )?for QObjectData"
allowed="$allowed)$"

# AddressSanitizer adds an ODR indicator "__odr_asan.<symbol>" per exported global; it is
# checked as the symbol it belongs to.
symbols=$("$nm" -D --defined-only "$lib" | awk 'NF >= 3 { print $3 }' | sed 's/^__odr_asan\.//' | "$filt")
if [ -z "$symbols" ]; then
    echo "no defined dynamic symbols in $lib" >&2
    exit 1
fi

status=0
leaked=$(printf '%s\n' "$symbols" | grep -Ev -e "$allowed" || true)
if [ -n "$leaked" ]; then
    echo "Symbols exported outside the public interface:" >&2
    printf '%s\n' "$leaked" | sed 's/^/  /' >&2
    status=1
fi

for required in 'CalcHostCrc(void const*, unsigned long)' 'EscapeXonXoff(QByteArray const&)' \
    'PXLogBytes(QByteArray const&, int)' 'PXLogString(char const*, ...)' \
    'PXParser::getPacket(bool)' 'PXDelayCallback::tigger()' 'PXCallback::trigger()' \
    'PXDummyLogger::dup(QObject*)' 'PXDelayCallback::staticMetaObject'; do
    if ! printf '%s\n' "$symbols" | grep -qxF -e "$required"; then
        echo "Missing export: $required" >&2
        status=1
    fi
done

[ $status -eq 0 ] && echo "$(printf '%s\n' "$symbols" | wc -l) exported symbols, all public"
exit $status
