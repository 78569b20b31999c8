#include "config/config_error.h"
#include "config/xml_document.h"

#include <gtest/gtest.h>

#include <string>

using namespace ps_ns;

namespace
{

std::string Repeat(const std::string& unit, std::size_t times)
{
    std::string text;
    for (std::size_t count = 0; count < times; ++count)
    {
        text += unit;
    }
    return text;
}

/// "line: what" of the refusal, or "accepted".
std::string Refusal(const std::string& text)
{
    try
    {
        ScanXml(text, "f");
        return "accepted";
    }
    catch (const ConfigError& error)
    {
        return std::string(error.what()).substr(2);
    }
}

} // namespace

TEST(XmlScanner, ListsElementsInOrderWithLinesDepthsAndParents)
{
    const XmlDocument document = ScanXml("<a>\n<b/>\n<c>\n\n<d/></c></a>", "f");
    const auto& elements = document.GetElements();
    ASSERT_EQ(elements.size(), 4U);
    EXPECT_EQ(elements[0].name, "a");
    EXPECT_EQ(elements[0].parent, XmlElement::kNone);
    EXPECT_EQ(elements[1].line, 2U);
    EXPECT_EQ(elements[1].depth, 2U);
    EXPECT_EQ(elements[3].name, "d");
    EXPECT_EQ(elements[3].line, 5U);
    EXPECT_EQ(elements[3].depth, 3U);
    EXPECT_EQ(elements[3].parent, 2U);
}

TEST(XmlScanner, GivesEveryAttributeItsOwnLine)
{
    const XmlDocument document = ScanXml("<a b='1'\n   c = \"2\"\n\td='x\ny' e=''/>", "f");
    const auto attributes = document.GetAttributes(document.GetElements().front());
    ASSERT_EQ(attributes.size(), 4U);
    EXPECT_EQ(attributes[0].value, "1");
    EXPECT_EQ(attributes[1].name, "c");
    EXPECT_EQ(attributes[1].line, 2U);
    EXPECT_EQ(attributes[2].value, "x\ny");
    EXPECT_EQ(attributes[2].line, 3U);
    EXPECT_EQ(attributes[3].line, 4U);
}

TEST(XmlScanner, TakesAngleAndOtherQuoteInsideAValueAsText)
{
    const XmlDocument document = ScanXml("<a b='>\"/>' c=\"'>\"><d/></a>", "f");
    EXPECT_EQ(document.FindAttribute(document.GetElements()[0], "b")->value, ">\"/>");
    EXPECT_EQ(document.FindAttribute(document.GetElements()[0], "c")->value, "'>");
    EXPECT_EQ(document.GetElements().size(), 2U);
}

TEST(XmlScanner, ReplacesReferencesInValues)
{
    const XmlDocument document = ScanXml("<a b='&lt;&gt;&amp;&apos;&quot;&#65;&#x42;&#xe4;&#x20AC;&#x1F600;'/>", "f");
    EXPECT_EQ(document.FindAttribute(document.GetElements()[0], "b")->value,
              "<>&'\"AB\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
}

TEST(XmlScanner, RefusesReferencesThatStandForNothing)
{
    EXPECT_EQ(Refusal("<a b='\n&x;'/>"), "2: unknown reference \"&x;\"; for the character '&' write &amp;");
    for (const char* const reference :
         {"&", "&;", "&#;", "&#x;", "&#0;", "&#x0;", "&#8;", "&#xD800;", "&#x110000;", "&#1A;", "&#-1;", "&#+1;",
          "&#XA;", "&LT;", "&lt", "&#99999999999;", "&#xFFFF;", "& lt;"})
    {
        EXPECT_EQ(Refusal("<a b='" + std::string(reference) + "'/>").substr(0, 21), "1: unknown reference ")
            << reference;
        EXPECT_EQ(Refusal("<a>" + std::string(reference) + "</a>").substr(0, 21), "1: unknown reference ") << reference;
    }
}

TEST(XmlScanner, PassesOverCommentsCharacterDataAndInstructions)
{
    const XmlDocument document = ScanXml("<?xml version='1.0'?>\n<!-- <x> <!DOCTYPE ' -->\n<?p <y> ' ?>\n"
                                         "<a><![CDATA[<b> <!DOCTYPE x> ]] ]>]]><!----><?q?><c/></a>\n<!-- z -->\n",
                                         "f");
    ASSERT_EQ(document.GetElements().size(), 2U);
    EXPECT_EQ(document.GetElements()[0].line, 4U);
    EXPECT_EQ(document.GetElements()[1].name, "c");
}

TEST(XmlScanner, NotesTheLineOfTheFirstTextOfAnElement)
{
    const XmlDocument document =
        ScanXml("<a>\n  <b>\n \n x</b>\n<c> <!-- t --> </c>\n<d><![CDATA[]]></d> y z</a>", "f");
    EXPECT_EQ(document.GetElements()[0].textLine, 6U);
    EXPECT_EQ(document.GetElements()[1].textLine, 4U);
    EXPECT_EQ(document.GetElements()[2].textLine, 0U);
    EXPECT_EQ(document.GetElements()[3].textLine, 6U);
}

TEST(XmlScanner, AcceptsAByteOrderMarkAndCarriageReturns)
{
    const XmlDocument document = ScanXml("\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?>\r\n<a>\r\n</a>\r\n", "f");
    EXPECT_EQ(document.GetElements()[0].line, 2U);
}

TEST(XmlScanner, AcceptsBlanksBeforeTheEndOfAnyTag)
{
    EXPECT_EQ(Refusal("<a ><b \n/><c d='1' /></a\t>"), "accepted");
}

TEST(XmlScanner, RefusesADoctypeWhereverItIs)
{
    EXPECT_EQ(Refusal("\n<!DOCTYPE a>\n<a/>"), "2: a DOCTYPE is not accepted: no entities, nothing from outside");
    for (const char* const text :
         {"<!DOCTYPE a [<!ENTITY b ']>'>]><a/>", "<a><!DOCTYPE b></a>", "<a/><!DOCTYPE b>", "<!doctype a><a/>",
          "<!DocType", "<!DOCTYPE\n", "<!DOCTYPEa><a/>", "<!-- --><!DOCTYPE a>"})
    {
        EXPECT_NE(Refusal(text).find("a DOCTYPE is not accepted"), std::string::npos) << text;
    }
}

TEST(XmlScanner, RefusesOtherDeclarations)
{
    EXPECT_EQ(Refusal("<a>\n<!ENTITY b 'c'></a>"), "2: unknown markup \"<!ENTITY b\"");
    EXPECT_EQ(Refusal("<a><![cdata[]]></a>"), "1: unknown markup \"<![cdata[]\"");
    EXPECT_EQ(Refusal("<!- x --><a/>"), "1: unknown markup \"<!- x --><\"");
    EXPECT_EQ(Refusal("<!"), "1: unknown markup \"<!\"");
}

TEST(XmlScanner, AcceptsSixtyFourLevelsAndRefusesMore)
{
    EXPECT_EQ(Refusal(Repeat("<a>", 64) + Repeat("</a>", 64)), "accepted");
    EXPECT_EQ(Refusal(Repeat("<a>", 63) + "<b/>" + Repeat("</a>", 63)), "accepted");
    EXPECT_EQ(Refusal(Repeat("<a>\n", 65) + Repeat("</a>", 65)), "65: elements are nested more than 64 deep");
    EXPECT_EQ(Refusal(Repeat("<a>", 64) + "<b/>" + Repeat("</a>", 64)), "1: elements are nested more than 64 deep");
    EXPECT_EQ(Refusal(Repeat("<a>", 100'000)), "1: elements are nested more than 64 deep");
}

TEST(XmlScanner, CountsOnlyElementsAsLevels)
{
    EXPECT_EQ(Refusal("<a>" + Repeat("<!-- <b> --><?b <b> ?><![CDATA[<b>]]><c d='<b>'/>", 1)),
              "1: the value of the attribute \"d\" has a '<': its quote is missing, or write &lt;");
    EXPECT_EQ(Refusal("<a>" + Repeat("<!-- <b> --><?b <b> ?><![CDATA[<b>]]><c d='/>'/>", 1000) + "</a>"), "accepted");
}

TEST(XmlScanner, RefusesMoreThanOneMebibyteNamingTheLineWhereItIsPassed)
{
    const std::string start = "<a>\n\n";
    const std::string fill(XmlLimits::kMaxBytes - start.size() - 4, ' ');
    EXPECT_EQ(Refusal(start + fill + "</a>"), "accepted");
    EXPECT_EQ(Refusal(start + fill + " </a>"), "3: the file is larger than 1 MiB");
}

TEST(XmlScanner, RefusesMoreNodesThanTheLimit)
{
    const std::size_t most = XmlLimits::kMaxNodes;
    EXPECT_EQ(Refusal("<a>\n" + Repeat("<b/>", most - 1) + "</a>"), "accepted");
    EXPECT_EQ(Refusal("<a>\n" + Repeat("<b/>", most) + "</a>"), "2: more than 20000 elements and attributes");
    EXPECT_EQ(Refusal("<a>\n" + Repeat("<b c=''/>", most / 2) + "</a>"), "2: more than 20000 elements and attributes");
}

TEST(XmlScanner, RefusesNulAndOtherControlCharactersEverywhere)
{
    using namespace std::string_literals;
    EXPECT_EQ(Refusal("<a>\n</a>\n\0"s), "3: a NUL byte");
    EXPECT_EQ(Refusal("<!-- \0 --><a/>"s), "1: a NUL byte");
    EXPECT_EQ(Refusal("<a b='\0'/>"s), "1: a NUL byte");
    EXPECT_EQ(Refusal("<a>\n\x1B</a>"), "2: the control character 0x1B");
}

TEST(XmlScanner, RefusesWhatIsNotUtf8)
{
    EXPECT_EQ(Refusal("<a>\n\xE4</a>"), "2: the byte 0xE4 is not UTF-8");
    for (const char* const bad : {"\x80", "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xED\xA0\x80", "\xF0\x80\x80\x80",
                                  "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x98"})
    {
        EXPECT_NE(Refusal("<a>" + std::string(bad) + "</a>").find("is not UTF-8"), std::string::npos);
        EXPECT_NE(Refusal("<a/>" + std::string(bad)).find("is not UTF-8"), std::string::npos);
    }
    const std::string wide("\xFF\xFE<\0a\0/\0>\0", 10);
    EXPECT_EQ(Refusal(wide), "1: the file begins with the mark of UTF-16 or UTF-32; only UTF-8 is read");
}

TEST(XmlScanner, RefusesADeclaredEncodingOtherThanUtf8)
{
    EXPECT_EQ(Refusal("<?xml version='1.0' encoding=\"ISO-8859-1\"?><a/>"),
              "1: the encoding \"ISO-8859-1\" is not read, only UTF-8");
    EXPECT_EQ(Refusal("<?xml version='1.0' encoding=?><a/>"), "1: the encoding \"\" is not read, only UTF-8");
    EXPECT_EQ(Refusal("<?xml version='1.0' encoding='us-ascii'?><a/>"), "accepted");
    EXPECT_EQ(Refusal(" <?xml version='1.0'?><a/>"), "1: the XML declaration is not at the beginning");
}

TEST(XmlScanner, RefusesEndTagsThatDoNotMatch)
{
    EXPECT_EQ(Refusal("<a>\n<b>\n</a>"), "3: the end tag </a> does not match <b> of line 2");
    EXPECT_EQ(Refusal("<a></a>\n</a>"), "2: the end tag </a> has no start tag");
    EXPECT_EQ(Refusal("<a></A>"), "1: the end tag </A> does not match <a> of line 1");
    EXPECT_EQ(Refusal("<a></a b='1'>"), "1: the end tag </a> does not end");
    EXPECT_EQ(Refusal("<a></>"), "1: the name of an end tag is missing before \">\"");
}

TEST(XmlScanner, RefusesTheFirstDuplicateAttribute)
{
    EXPECT_EQ(Refusal("<a b='1'\nc='2'\nb='3'\nc='4'/>"), "3: the attribute \"b\" is there twice in <a>");
    EXPECT_EQ(Refusal("<a b='1' B='2'/>"), "accepted");
}

TEST(XmlScanner, RefusesWhatDoesNotEndNamingWhereItBegan)
{
    EXPECT_EQ(Refusal("<a>\n<!-- x\n\n"), "2: the comment does not end");
    EXPECT_EQ(Refusal("<a>\n<![CDATA[ ]]\n"), "2: the CDATA section does not end");
    EXPECT_EQ(Refusal("\n<?x\n>"), "2: the processing instruction does not end");
    EXPECT_EQ(Refusal("<a>\n<b\nc='1'\n"), "2: the tag <b> does not end");
    EXPECT_EQ(Refusal("<a>\n<b\nc='1>\n\n"), "3: the value of the attribute \"c\" does not end");
    EXPECT_EQ(Refusal("<a\nb"), "2: the attribute \"b\" has no value");
    EXPECT_EQ(Refusal("<a>\n<b>\n</b"), "3: the end tag </b> does not end");
    EXPECT_EQ(Refusal("<a>\n<b>\n<c/>\n"), "2: the element <b> is never closed");
    EXPECT_EQ(Refusal("<a"), "1: the tag <a> does not end");
    EXPECT_EQ(Refusal("<"), "1: the name of an element is missing before the end of the file");
}

TEST(XmlScanner, RefusesBrokenTags)
{
    EXPECT_EQ(Refusal("<1/>"), "1: the name of an element is missing before \"1\"");
    EXPECT_EQ(Refusal("< a/>"), "1: the name of an element is missing before \" \"");
    EXPECT_EQ(Refusal("<a b=1/>"), "1: the value of the attribute \"b\" is not in quotes");
    EXPECT_EQ(Refusal("<a b='1'c='2'/>"), "1: a blank is missing in the tag <a> before \"c\"");
    EXPECT_EQ(Refusal("<a ='1'/>"), "1: the name of an attribute is missing before \"=\"");
    EXPECT_EQ(Refusal("<a / >"), "1: '/' without '>' in the tag <a>");
    EXPECT_EQ(Refusal("<a /"), "1: '/' without '>' in the tag <a>");
    EXPECT_EQ(Refusal("<a<b/>"), "1: a blank is missing in the tag <a> before \"<\"");
    EXPECT_EQ(Refusal("<a b='\n<c/>\n'/>"),
              "1: the value of the attribute \"b\" has a '<': its quote is missing, or write &lt;");
    EXPECT_EQ(Refusal("<a><?></a>"), "1: the name of a processing instruction is missing before \">\"");
    EXPECT_EQ(Refusal("<a>\n<!-- -- --></a>"), "2: \"--\" inside a comment");
    EXPECT_EQ(Refusal("<a><!--></a>"), "1: the comment does not end");
}

TEST(XmlScanner, RefusesAnythingButOneRootElement)
{
    EXPECT_EQ(Refusal(""), "1: there is no root element");
    EXPECT_EQ(Refusal("\n<!-- x -->\n"), "3: there is no root element");
    EXPECT_EQ(Refusal("<a/>\n<b/>"), "2: a second root element <b>");
    EXPECT_EQ(Refusal("x<a/>"), "1: text outside the root element");
    EXPECT_EQ(Refusal("<a/>\n\n x"), "3: text outside the root element");
    EXPECT_EQ(Refusal("<a/>\n<![CDATA[x]]>"), "2: text outside the root element");
}

TEST(XmlScanner, LooksAtEachByteThreeTimesAtMost)
{
    const std::string longName(100'000, 'n');
    for (const std::string& text :
         {Repeat("<a b='1'>", 100'000), Repeat("&", 1'000'000), "<a>" + Repeat("&amp;", 200'000),
          Repeat("<!-- -", 150'000), "<a>" + Repeat("<![CDATA[ ]] ", 80'000), "<" + longName + "/>",
          "<a " + Repeat(" ", 1'000'000), "<a b='" + longName, std::string(100 * 1024 * 1024, '<')})
    {
        std::size_t visited = 0;
        EXPECT_THROW(ScanXml(text + "<", "f", &visited), ConfigError);
        EXPECT_LE(visited, 3 * std::min(text.size() + 1, XmlLimits::kMaxBytes));
    }
}

TEST(XmlDocument, FindsDirectChildrenByName)
{
    const XmlDocument document = ScanXml("<a><b><c/></b><c/><b/><d><b/></d></a>", "f");
    EXPECT_EQ(document.FindChildren(0, "b"), (std::vector<std::size_t>{1, 4}));
    EXPECT_EQ(document.FindChild(0, "c"), std::size_t{3});
    EXPECT_EQ(document.FindChild(1, "c"), std::size_t{2});
    EXPECT_EQ(document.FindChild(3, "c"), std::nullopt);
    EXPECT_EQ(document.FindChild(0, "e"), std::nullopt);
}

TEST(XmlDocument, FindsNoAttributeThatIsNotThere)
{
    const XmlDocument document = ScanXml("<a b='1'><c d='2'/></a>", "f");
    EXPECT_EQ(document.FindAttribute(document.GetElements()[0], "d"), nullptr);
    EXPECT_EQ(document.FindAttribute(document.GetElements()[1], "d")->value, "2");
}
