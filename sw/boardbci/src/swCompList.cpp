#include "swCompList.h"

namespace SwCompList {

namespace {

constexpr std::string_view PROD_NBR = "<ProdNbr>";
constexpr std::string_view PROD_NBR_END = "</ProdNbr>";

/// Puts `text` between two tags; where they stand the wrong way round nothing is between them.
void replaceContent(std::string& list, std::size_t content, std::size_t close, const std::string& text)
{
    if (content <= close) {
        list.replace(content, close - content, text);
    }
}

/// The first two. The second is searched from where the first one's end was before it got another length.
void rewriteProductNumbers(std::string& list, const std::string& product)
{
    const std::size_t open = list.find(PROD_NBR);
    const std::size_t close = list.find(PROD_NBR_END);
    if (open == std::string::npos || close == std::string::npos) {
        return;
    }
    replaceContent(list, open + PROD_NBR.size(), close, product);
    const std::size_t secondOpen = list.find(PROD_NBR, close);
    if (secondOpen == std::string::npos) {
        return;
    }
    const std::size_t content = secondOpen + PROD_NBR.size();
    const std::size_t secondClose = list.find(PROD_NBR_END, content);
    if (secondClose != std::string::npos) {
        replaceContent(list, content, secondClose, product);
    }
}

void rewriteRevision(std::string& list, const std::string& revision)
{
    constexpr std::string_view tag = "<Rev>";
    const std::size_t open = list.find(tag);
    const std::size_t close = list.find("</Rev>");
    if (open != std::string::npos && close != std::string::npos) {
        replaceContent(list, open + tag.size(), close, revision);
    }
}

} // namespace

const std::string_view BUILT_IN_LIST = "<LmcList>\n"
                                       "<!-- QDA5560310/15 R91KT -->\n"
                                       "<ProdNbr>QXR7041162/15</ProdNbr>\n"
                                       "<Rev>R91KT</Rev>\n"
                                       "<Preinstalled/>\n"
                                       "<SwList>\n"
                                       "<ListItem>\n"
                                       "<ProdNbr>QXR7041162/15</ProdNbr>\n"
                                       "<StartRev>R88TF</StartRev>\n"
                                       "<StopRev>R91KT</StopRev>\n"
                                       "</ListItem>\n"
                                       "</SwList>\n"
                                       "</LmcList>\n";

void rewrite(std::string& list, const std::string& runningSoftware)
{
    const std::size_t separator = runningSoftware.find('_');
    std::string product = runningSoftware.substr(0, separator);
    const std::string revision =
        separator == std::string::npos ? std::string() : runningSoftware.substr(separator + 1);
    if (const std::size_t percent = product.find('%'); percent != std::string::npos) {
        product[percent] = '/';
    }
    if (list.find("<Preinstalled/>") == std::string::npos) {
        list.replace(list.find("<LmcList>"), 0, BUILT_IN_LIST);
    }
    rewriteProductNumbers(list, product);
    rewriteRevision(list, revision);
}

std::string cutPiece(std::string& list)
{
    std::string piece = list.substr(0, PIECE_SIZE);
    list.erase(0, PIECE_SIZE);
    return piece;
}

} // namespace SwCompList
