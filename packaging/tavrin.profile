# Members of the group tavrin reach the system's TAVRIN server (tavrind.service,
# which serves the namespace "tavrin" for that group) without further setup.
# A TAVRIN_NAMESPACE set before login is left alone.
if [ -z "${TAVRIN_NAMESPACE+set}" ] && id -Gn 2>/dev/null | tr ' ' '\n' | grep -qx tavrin; then
  export TAVRIN_NAMESPACE=tavrin
fi
