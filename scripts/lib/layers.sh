# shellcheck shell=bash
# Which folder of the back end may include which: the arrows of docs/architecture.md. Its own
# folder, and the leaves, are open to each.

declare -A LAYER_INCLUDES=(
    [policy]='' [observe]='' [store]='' [ssh]=''
    [net]=''
    [devices]='net'
    [directory]='devices net'
    [sessions]='devices net'
    [operations]='directory sessions devices net'
    [api]='operations directory sessions devices net'
    [admin]='devices'
    [doors]='operations directory sessions devices net'
)
readonly LAYER_LEAVES='policy observe store ssh' # and the headers beside the folders
readonly LAYER_HEADERS='limits.h device_key.h labels.h utc_time.h options.h config_file.h'

# check_layers: names each line of backend/ that includes what its folder must not.
check_layers() {
    local folder found=0 line wanted
    for folder in $(cd backend && printf '%s\n' */ | tr -d /); do
        [ -n "${LAYER_INCLUDES[$folder]+set}" ] || { echo "backend/$folder: no layer"; found=1; }
        while read -r line; do
            wanted=${line#*\"backend/}
            wanted=${wanted%\"*}
            case $wanted in
            */*) wanted=${wanted%%/*} ;;
            *) [[ " $LAYER_HEADERS " == *" $wanted "* ]] && continue ;;
            esac
            [[ " $folder $LAYER_LEAVES ${LAYER_INCLUDES[$folder]-} " == *" $wanted "* ]] && continue
            echo "$line: $folder must not include this"
            found=1
        done < <(grep -rn '#include "backend/' "backend/$folder")
    done
    while read -r line; do
        echo "$line: keep must not include this"
        found=1
    done < <(grep -rnE '#include "(backend|operator|keeper|src|platform)/' keep)
    return $found
}
